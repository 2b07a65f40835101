#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tidegate::agent {

// What a client asks for, if the answer has to be made.
struct HttpRequest {
  std::string path;
  // As they came, with their %XX decoded; one without a "=" has no value.
  std::vector<std::pair<std::string, std::string>> arguments;

  bool operator==(const HttpRequest& other) const {
    return path == other.path && arguments == other.arguments;
  }
};

struct HttpAnswer {
  unsigned status = 200;
  const char* type = "text/plain; version=0.0.4; charset=utf-8";
  std::string text;
  std::string etag;  // a strong one, with its quotes; empty: none
};

}  // namespace tidegate::agent
