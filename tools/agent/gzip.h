#pragma once

#include <string>
#include <string_view>

namespace tidegate::agent {

// `text` as one gzip member, compressed for speed. Throws std::bad_alloc without memory.
std::string Gzip(std::string_view text);

}  // namespace tidegate::agent
