#pragma once

#include <string_view>

#include "agent/kinds.h"

namespace tidegate::agent {

// A file of the page at /. The build embeds those of the folder `page` and the chart library.
struct PageFile {
  std::string_view path;  // of the request: "/", "/assets/main.js"
  std::string_view type;  // Content-Type
  std::string_view etag;  // a strong one, with its quotes
  std::string_view content;
};

// For all of them. The page asks nobody but the agent, and runs no script that is not a file of its
// own. The chart library sets styles of elements, which is no inline style.
inline constexpr char kPagePolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; "
    "img-src 'self' data:; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

ConstList<PageFile> PageFiles();

// Null if there is none of that path.
inline const PageFile* FindPageFile(std::string_view path) {
  for (const PageFile& file : PageFiles()) {
    if (file.path == path) return &file;
  }
  return nullptr;
}

}  // namespace tidegate::agent
