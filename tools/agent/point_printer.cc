#include "agent/point_printer.h"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

#include "agent/numbers.h"
#include "agent/point_mapping.h"
#include "agent/quoted.h"

namespace tidegate::agent {
namespace {

using Json = nlohmann::json;

constexpr NumberWords kNumberWords = {"nan", "inf", "-inf"};

bool NeedsQuotes(const std::string& text) {
  constexpr std::string_view kPunctuation = "\"\\{},=";
  return text.empty() || std::any_of(text.begin(), text.end(), [&](char c) {
           return c <= ' ' || c > '~' || kPunctuation.find(c) != std::string_view::npos;
         });
}

void AppendWord(const std::string& text, std::string* out) {
  if (!NeedsQuotes(text)) {
    *out += text;
    return;
  }
  AppendQuoted(text, out);
}

template <typename Handle>
void ForEachTag(const Packet& packet, const Series& record, const Tag* extra,
                const Handle& handle) {
  for (const Tag& tag : record.tags) handle(tag);
  for (const std::string_view key : kHeaderKeys) {
    const std::string_view value = HeaderValue(packet, key);
    if (!value.empty()) handle(Tag{std::string(key), std::string(value)});
  }
  if (extra != nullptr) handle(*extra);
}

// The beginning of every line of text.
void AppendHead(const Packet& packet, int64_t timestamp, std::string_view type,
                const std::string& name, const Series& record, const Tag* extra, std::string* out) {
  *out += std::to_string(timestamp);
  *out += ' ';
  AppendWord(packet.tenant, out);
  *out += ' ';
  *out += type;
  *out += ' ';
  AppendWord(name, out);
  *out += '{';
  const char* separator = "";
  ForEachTag(packet, record, extra, [&](const Tag& tag) {
    *out += std::exchange(separator, ",");
    AppendWord(tag.key, out);
    *out += '=';
    AppendWord(tag.value, out);
  });
  *out += '}';
}

// False unless `name` is a base name, a dot and `part`.
bool SplitTimerName(std::string_view name, std::string_view part, std::string* base) {
  if (name.size() < part.size() + 1 || name[name.size() - part.size() - 1] != '.' ||
      name.substr(name.size() - part.size()) != part) {
    return false;
  }
  *base = name.substr(0, name.size() - part.size() - 1);
  return true;
}

Json NumberToJson(double value) {
  if (std::isfinite(value)) return value;
  std::string text;
  AppendNumber(value, kNumberWords, &text);
  return text;
}

// Numbers and strings only: to destroy an object of that library takes memory, and ends the process
// where there is none.
void AppendJsonValue(const Json& value, std::string* out) {
  *out += value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void AppendMember(const char* separator, const std::string& key, const Json& value,
                  std::string* out) {
  *out += separator;
  AppendJsonValue(key, out);
  *out += ':';
  AppendJsonValue(value, out);
}

}  // namespace

size_t TimerBlocks(const Packet& packet, size_t first) {
  const std::vector<Block>& blocks = packet.blocks;
  if (blocks.size() - first < std::size(kTimerColumns)) return 0;
  std::string base;
  if (!SplitTimerName(blocks[first].name, kTimerColumns[0].name, &base)) return 0;
  for (size_t i = 0; i < std::size(kTimerColumns); ++i) {
    const Block& block = blocks[first + i];
    std::string same;
    if (block.wire_type != static_cast<uint8_t>(Kind::kGauge) || block.series.size() != 1 ||
        !block.fields.empty() || block.timestamp != blocks[first].timestamp ||
        !SplitTimerName(block.name, kTimerColumns[i].name, &same) || same != base ||
        !(block.series[0].tags == blocks[first].series[0].tags)) {
      return 0;
    }
  }
  return std::size(kTimerColumns);
}

void AppendTimerText(const Packet& packet, size_t first, const Tag* extra, std::string* out) {
  const Block& block = packet.blocks[first];
  std::string base;
  SplitTimerName(block.name, kTimerColumns[0].name, &base);
  AppendHead(packet, block.timestamp, "timer", base, block.series[0], extra, out);
  for (size_t i = 0; i < std::size(kTimerColumns); ++i) {
    *out += ' ';
    *out += kTimerColumns[i].name;
    *out += '=';
    AppendNumber(packet.blocks[first + i].series[0].values.front(), kNumberWords, out);
  }
  *out += '\n';
}

void AppendText(const Packet& packet, const Block& block, const Series& record, const Tag* extra,
                std::string* out) {
  AppendHead(packet, block.timestamp, WireTypeName(block.wire_type), block.name, record, extra,
             out);
  for (size_t i = 0; i < record.values.size(); ++i) {
    *out += ' ';
    if (!block.fields.empty()) {
      AppendWord(block.FieldName(record, i), out);
      *out += '=';
    }
    AppendNumber(record.values[i], kNumberWords, out);
  }
  *out += '\n';
}

void AppendJson(const Packet& packet, const Block& block, const Series& record, const Tag* extra,
                std::string* out) {
  AppendMember("{", "timestamp", block.timestamp, out);
  AppendMember(",", "tenant", packet.tenant, out);
  AppendMember(",", "type", WireTypeName(block.wire_type), out);
  AppendMember(",", "name", block.name, out);
  *out += ",\"tags\":{";
  const char* separator = "";
  ForEachTag(packet, record, extra, [&](const Tag& tag) {
    AppendMember(std::exchange(separator, ","), tag.key, tag.value, out);
  });
  *out += '}';
  if (block.fields.empty()) {
    AppendMember(",", "value", NumberToJson(record.values.front()), out);
  } else {
    *out += ",\"fields\":{";
    separator = "";
    for (size_t i = 0; i < record.values.size(); ++i) {
      AppendMember(std::exchange(separator, ","), block.FieldName(record, i),
                   NumberToJson(record.values[i]), out);
    }
    *out += '}';
  }
  *out += "}\n";
}

}  // namespace tidegate::agent
