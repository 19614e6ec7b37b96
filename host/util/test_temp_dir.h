// A temporary directory for tests, removed with its contents on destruction.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace arvo::test {

class TempDir {
 public:
  TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "arvo-host-XXXXXX").string();
    if (::mkdtemp(tmpl.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed";
    m_path = tmpl;
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return m_path; }
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }

  // Writes `content` to the file `name` and returns its path.
  std::string Write(const std::string& name, const std::string& content) const {
    const std::string p = *this / name;
    std::ofstream(p, std::ios::binary) << content;
    return p;
  }

 private:
  std::string m_path;
};

}  // namespace arvo::test
