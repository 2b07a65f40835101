#include "testing/temp_dir.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace tidegate::test {

TempDir::TempDir() : path_("/tmp/tgXXXXXX") {
  if (::mkdtemp(path_.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), "no folder " + path_);
  }
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace tidegate::test
