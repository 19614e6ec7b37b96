// Temporary directory trees for tests that walk real file systems.
// Header-only; every helper fails the current test (ADD_FAILURE) rather than
// throwing. Trees deeper than PATH_MAX are built and removed through
// descriptors, never through their full paths.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace arvo::test {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it.
class TempDir {
 public:
  TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/arvo-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed";
    m_path = pattern;
  }
  ~TempDir() {
    // rm walks by descriptor, so trees deeper than PATH_MAX go too.
    const std::string command = "rm -rf '" + m_path + "'";
    if (std::system(command.c_str()) != 0) ADD_FAILURE() << "cannot remove " << m_path;
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return m_path; }
  std::string operator/(const std::string& relative) const { return m_path + "/" + relative; }

 private:
  std::string m_path;
};

inline void WriteFile(const std::string& path, const std::string& content) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    ADD_FAILURE() << "cannot create " << path;
    return;
  }
  if (write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
    ADD_FAILURE() << "cannot write " << path;
  close(fd);
}

inline void MakeDir(const std::string& path) {
  if (mkdir(path.c_str(), 0755) != 0) ADD_FAILURE() << "cannot mkdir " << path;
}

// Builds `depth` nested directories named `name` under `root`, each holding
// one empty file "f". Returns the deepest directory's path (which may be
// longer than PATH_MAX).
inline std::string MakeDeepTree(const std::string& root, int depth, const std::string& name) {
  int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  std::string path = root;
  for (int i = 0; i < depth && fd >= 0; ++i) {
    if (mkdirat(fd, name.c_str(), 0755) != 0) ADD_FAILURE() << "mkdirat failed at depth " << i;
    const int next = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(fd);
    fd = next;
    path += "/" + name;
    const int file = openat(fd, "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (file >= 0) close(file);
  }
  if (fd >= 0) close(fd);
  return path;
}

}  // namespace arvo::test
