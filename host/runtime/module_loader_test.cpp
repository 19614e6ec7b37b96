#include "host/runtime/module_loader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "host/util/test_temp_dir.h"

namespace arvo::host {
namespace {

TEST(ModuleLoaderTest, MissingFileNamesThePathAndTheLoaderError) {
  ModuleLoader module;
  std::string error;
  EXPECT_FALSE(module.Load("/nonexistent/libintegrity_monitor.so", error));
  EXPECT_FALSE(module.Loaded());
  EXPECT_EQ(error.rfind("cannot load module '/nonexistent/libintegrity_monitor.so': ", 0), 0u)
      << error;
  EXPECT_NE(error.find("No such file or directory"), std::string::npos) << error;
}

TEST(ModuleLoaderTest, LibraryWithoutTheEntryPointsIsRefused) {
  ModuleLoader module;
  std::string error;
  EXPECT_FALSE(module.Load("libm.so.6", error));
  EXPECT_FALSE(module.Loaded());
  EXPECT_NE(error.find("ornGetObjectFactory"), std::string::npos) << error;
}

// The installed layout puts the module in the package's private directory,
// the build tree in ../lib; an installed tree wins over a stray build-tree
// copy, and both are found relative to wherever the tree was unpacked.
TEST(ModuleLoaderTest, ModuleBesideTheBinaryPrefersThePrivateDirectory) {
  test::TempDir tree;
  const std::string bin = tree / "bin";
  const std::string installedDir = bin + "/" + ARVO_FIM_MODULE_DIR_FROM_BIN;
  std::filesystem::create_directories(bin);
  EXPECT_EQ(FindModuleBeside(bin), "");

  std::filesystem::create_directories(tree / "lib");
  tree.Write("lib/libintegrity_monitor.so", "");
  EXPECT_EQ(FindModuleBeside(bin), tree / "lib/libintegrity_monitor.so");

  std::filesystem::create_directories(installedDir);
  const std::string installed =
      std::filesystem::path(installedDir + "/libintegrity_monitor.so").lexically_normal().string();
  std::ofstream(installed).put('\n');
  EXPECT_EQ(FindModuleBeside(bin), installed);
}

}  // namespace
}  // namespace arvo::host
