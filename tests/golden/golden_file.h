#pragma once

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

// The bytes of tests/golden/<name>: hexadecimal pairs, and comments from '#' to the end of a line.
inline std::string ReadGolden(const std::string& name) {
  std::ifstream file(std::string(TIDEGATE_SOURCE_DIR "/tests/golden/") + name);
  if (!file) throw std::runtime_error("cannot open the golden file " + name);
  std::string bytes;
  for (std::string line; std::getline(file, line);) {
    std::istringstream pairs(line.substr(0, line.find('#')));
    for (std::string pair; pairs >> pair;) {
      bytes += static_cast<char>(std::stoi(pair, nullptr, 16));
    }
  }
  return bytes;
}
