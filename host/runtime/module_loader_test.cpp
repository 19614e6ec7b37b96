#include "host/runtime/module_loader.h"

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
}  // namespace arvo::host
