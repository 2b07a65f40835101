#include "testing/temp_dir.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace tidegate::test {

TempDir::TempDir() : path_("/tmp/tgXXXXXX") {
  if (::mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no folder " + path_);
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace tidegate::test
