#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/http_request.h"

namespace tidegate::agent {

// A series of the table: that of its metric, and its own. Neither is ever given twice.
struct SeriesId {
  uint64_t metric = 0;
  uint64_t series = 0;
  bool operator==(const SeriesId& other) const {
    return metric == other.metric && series == other.series;
  }
};

// As 32 hexadecimal digits.
std::string TextOf(const SeriesId& id);

// The arguments of a request to the API.
struct ApiQuery {
  static constexpr size_t kDefaultLimit = 100;
  static constexpr size_t kMaxLimit = 1000;
  static constexpr size_t kMaxIds = 64;
  static constexpr size_t kMaxSearchBytes = 256;
  static constexpr size_t kMaxWords = 16;

  std::vector<std::string> words;  // of the search, in lower case; all have to be in a name
  size_t limit = kDefaultLimit;
  size_t offset = 0;
  std::string metric;
  std::vector<SeriesId> ids;
  int64_t since_ms = INT64_MIN;
};

// False, with one line in `error`, for an argument that the path does not take, that comes twice,
// or whose value makes no sense.
bool ParseApiQuery(const HttpRequest& request, ApiQuery* query, std::string* error);

// As searches compare letters: those of ASCII alone.
char LowerCase(char c);

}  // namespace tidegate::agent
