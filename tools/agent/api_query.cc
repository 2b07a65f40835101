#include "agent/api_query.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <system_error>

#include "agent/kinds.h"
#include "agent/quoted.h"

namespace tidegate::agent {
namespace {

constexpr size_t kHalfId = 16;  // digits

template <typename Number>
bool ReadNumber(std::string_view text, int base, Number* number) {
  const auto result = std::from_chars(text.data(), text.data() + text.size(), *number, base);
  return !text.empty() && result.ec == std::errc() && result.ptr == text.data() + text.size();
}

bool ReadSearch(std::string_view text, ApiQuery* query) {
  if (text.size() > ApiQuery::kMaxSearchBytes) return false;
  std::string word;
  const auto end_word = [&] {
    if (!word.empty()) query->words.push_back(std::move(word));
    word.clear();
  };
  for (const char c : text) {
    if (c == ' ') {
      end_word();
    } else {
      word += LowerCase(c);
    }
  }
  end_word();
  return query->words.size() <= ApiQuery::kMaxWords;
}

bool ReadLimit(std::string_view text, ApiQuery* query) {
  return ReadNumber(text, 10, &query->limit) && query->limit <= ApiQuery::kMaxLimit;
}

bool ReadOffset(std::string_view text, ApiQuery* query) {
  return ReadNumber(text, 10, &query->offset) && query->offset <= UINT32_MAX;
}

bool ReadMetric(std::string_view text, ApiQuery* query) {
  query->metric = text;
  return !text.empty();
}

bool ReadId(std::string_view text, ApiQuery* query) {
  SeriesId id;
  const bool digits = text.size() == 2 * kHalfId &&
                      ReadNumber(text.substr(0, kHalfId), 16, &id.metric) &&
                      ReadNumber(text.substr(kHalfId), 16, &id.series);
  if (digits && std::find(query->ids.begin(), query->ids.end(), id) == query->ids.end()) {
    query->ids.push_back(id);
  }
  return digits && query->ids.size() <= ApiQuery::kMaxIds;
}

bool ReadSince(std::string_view text, ApiQuery* query) {
  return ReadNumber(text, 10, &query->since_ms);
}

struct Argument {
  std::string_view name;
  bool (*read)(std::string_view text, ApiQuery* query);
  std::string_view wants;
};
constexpr Argument kList[] = {
    {"search", ReadSearch, "at most 256 bytes, of at most 16 words"},
    {"limit", ReadLimit, "a number from 0 to 1000"},
    {"offset", ReadOffset, "a number from 0 to 4294967295"},
    {"metric", ReadMetric, "the name of a metric"},
};
constexpr Argument kPoints[] = {
    {"id", ReadId, "the id of a series, and there are 64 at most"},
    {"since_ms", ReadSince, "milliseconds since the epoch"},
};

ConstList<Argument> ArgumentsOf(std::string_view path) {
  if (path == "/api/points") return kPoints;
  if (path == "/api/metrics" || path == "/api/series") return kList;
  return {};
}

std::string Quoted(std::string_view text) {
  constexpr size_t kMost = 64;
  std::string quoted;
  AppendQuoted(text.substr(0, kMost), &quoted);
  return quoted;
}

}  // namespace

std::string TextOf(const SeriesId& id) {
  std::string text;
  for (const uint64_t half : {id.metric, id.series}) {
    char digits[kHalfId];
    const char* const end = std::to_chars(digits, digits + kHalfId, half, 16).ptr;
    const auto size = static_cast<size_t>(end - digits);
    text.append(kHalfId - size, '0').append(digits, size);
  }
  return text;
}

bool ParseApiQuery(const HttpRequest& request, ApiQuery* query, std::string* error) {
  const ConstList<Argument> known = ArgumentsOf(request.path);
  std::set<std::string_view> seen;
  for (const auto& [name, value] : request.arguments) {
    const auto* const argument =
        std::find_if(known.begin(), known.end(),
                     [&name = name](const Argument& other) { return other.name == name; });
    if (argument == known.end()) {
      *error = request.path + " takes no argument " + Quoted(name);
      return false;
    }
    if (!seen.insert(argument->name).second && argument->name != "id") {
      *error = Quoted(name) + " comes twice";
      return false;
    }
    if (!argument->read(value, query)) {
      *error =
          Quoted(name) + " is to be " + std::string(argument->wants) + ", not " + Quoted(value);
      return false;
    }
  }
  return true;
}

char LowerCase(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace tidegate::agent
