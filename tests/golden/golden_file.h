#pragma once

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>

inline std::string ReadSourceFile(const std::string& path) {
  std::ifstream file(std::string(TIDEGATE_SOURCE_DIR "/") + path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot open " + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// The text after the line `opening`, up to the end of the fenced block that it opens.
inline std::string FencedBlock(const std::string& text, const std::string& opening) {
  const size_t start = text.find("\n" + opening + "\n");
  if (start == std::string::npos) throw std::runtime_error("no " + opening);
  const size_t begin = start + opening.size() + 2;
  return text.substr(begin, text.find("\n```", begin) + 1 - begin);
}

// The packets that docs/wire_format.md shows: "gauge.hex" and "multi_field.hex". The lines of a
// dump begin with the offset of their first byte in three columns.
inline std::string ReadGolden(const std::string& name) {
  std::string text = ReadSourceFile("docs/wire_format.md");
  text.erase(0, text.find(name == "gauge.hex" ? "\n## One packet\n" : "\n## Rows\n"));
  std::istringstream lines(FencedBlock(text, "```hex"));
  std::string bytes;
  for (std::string line; std::getline(lines, line);) {
    if (std::stoul(line) != bytes.size()) throw std::runtime_error("wrong offset: " + line);
    std::istringstream pairs(line.substr(3));
    for (std::string pair; pairs >> pair;) {
      bytes += static_cast<char>(std::stoi(pair, nullptr, 16));
    }
  }
  return bytes;
}
