#pragma once

#include <string_view>

namespace tidegate::agent {

inline bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

}  // namespace tidegate::agent
