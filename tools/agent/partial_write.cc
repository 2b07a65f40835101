#include "agent/partial_write.h"

#include <charconv>

namespace tidegate::agent {
namespace {

constexpr std::string_view kStart = R"({"error":"partial write: )";
constexpr std::string_view kEnd = R"("})";
constexpr std::string_view kCount = " dropped=";
constexpr std::string_view kUnparsed = "unable to parse '";

bool TakeFront(std::string_view front, std::string_view* text) {
  if (text->substr(0, front.size()) != front) return false;
  text->remove_prefix(front.size());
  return true;
}

// The number of lines in the text of a string of JSON, each of which begins with kUnparsed.
std::optional<uint64_t> CountUnparsed(std::string_view text) {
  if (!TakeFront(kUnparsed, &text)) return std::nullopt;
  uint64_t lines = 1;
  while (!text.empty()) {
    const bool escape = TakeFront("\\", &text);
    if (escape && TakeFront("n", &text)) {
      if (!TakeFront(kUnparsed, &text)) return std::nullopt;
      ++lines;
    } else if (text.empty() || (!escape && text.front() == '"')) {
      return std::nullopt;  // no whole string
    } else {
      text.remove_prefix(1);
    }
  }
  return lines;
}

}  // namespace

std::optional<uint64_t> LinesDropped(std::string_view body) {
  if (!body.empty() && body.back() == '\n') body.remove_suffix(1);
  if (!TakeFront(kStart, &body) || body.size() < kEnd.size() ||
      body.substr(body.size() - kEnd.size()) != kEnd) {
    return std::nullopt;
  }
  body.remove_suffix(kEnd.size());
  const size_t count = body.rfind(kCount);
  if (count == std::string_view::npos) return std::nullopt;
  uint64_t dropped = 0;
  const char* const end = body.data() + body.size();
  const auto [stop, failure] = std::from_chars(body.data() + count + kCount.size(), end, dropped);
  if (failure != std::errc() || stop != end) return std::nullopt;
  return dropped > 0 ? dropped : CountUnparsed(body.substr(0, count));
}

}  // namespace tidegate::agent
