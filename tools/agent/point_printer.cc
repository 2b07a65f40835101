#include "agent/point_printer.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>
#include <utility>

namespace tidegate::agent {
namespace {

using Json = nlohmann::ordered_json;

void AppendNumber(double value, std::string* out) {
  if (std::isnan(value)) {
    *out += "nan";  // the sign of a NaN means nothing
    return;
  }
  char digits[32];
  const char* end = std::to_chars(std::begin(digits), std::end(digits), value).ptr;
  out->append(digits, static_cast<size_t>(end - digits));
}

bool NeedsQuotes(const std::string& text) {
  constexpr std::string_view kPunctuation = "\"\\{},=";
  return text.empty() || std::any_of(text.begin(), text.end(), [&](char c) {
           return c <= ' ' || c > '~' || kPunctuation.find(c) != std::string_view::npos;
         });
}

void AppendEscaped(char c, std::string* out) {
  constexpr char kHex[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  if (c == '"' || c == '\\') {
    *out += {'\\', c};
  } else if (c == '\n') {
    *out += "\\n";
  } else if (byte < ' ' || byte > '~') {
    *out += {'\\', 'x', kHex[byte >> 4], kHex[byte & 15]};
  } else {
    *out += c;
  }
}

void AppendWord(const std::string& text, std::string* out) {
  if (!NeedsQuotes(text)) {
    *out += text;
    return;
  }
  *out += '"';
  for (char c : text) AppendEscaped(c, out);
  *out += '"';
}

Json NumberToJson(double value) {
  if (std::isfinite(value)) return value;
  std::string text;
  AppendNumber(value, &text);
  return text;
}

// Goes around the lookup for an equal key, which would drop the second of two and take quadratic
// time on long lists.
void AddMember(const std::string& key, Json value, Json* object) {
  object->get_ref<Json::object_t&>().emplace_back(key, std::move(value));
}

}  // namespace

void AppendText(const Packet& packet, const Block& block, const Series& record, std::string* out) {
  *out += std::to_string(block.timestamp);
  *out += ' ';
  AppendWord(packet.tenant, out);
  *out += ' ';
  *out += WireTypeName(block.wire_type);
  *out += ' ';
  AppendWord(block.name, out);
  *out += '{';
  for (const Tag& tag : record.tags) {
    if (&tag != record.tags.data()) *out += ',';
    AppendWord(tag.key, out);
    *out += '=';
    AppendWord(tag.value, out);
  }
  *out += '}';
  for (size_t i = 0; i < record.values.size(); ++i) {
    *out += ' ';
    if (!block.fields.empty()) {
      AppendWord(block.FieldName(record, i), out);
      *out += '=';
    }
    AppendNumber(record.values[i], out);
  }
  *out += '\n';
}

void AppendJson(const Packet& packet, const Block& block, const Series& record, std::string* out) {
  Json line;
  line["timestamp"] = block.timestamp;
  line["tenant"] = packet.tenant;
  line["type"] = WireTypeName(block.wire_type);
  line["name"] = block.name;
  Json& tags = line["tags"] = Json::object();
  for (const Tag& tag : record.tags) AddMember(tag.key, tag.value, &tags);
  if (block.fields.empty()) {
    line["value"] = NumberToJson(record.values.front());
  } else {
    Json fields = Json::object();
    for (size_t i = 0; i < record.values.size(); ++i) {
      AddMember(block.FieldName(record, i), NumberToJson(record.values[i]), &fields);
    }
    line["fields"] = std::move(fields);
  }
  *out += line.dump(-1, ' ', false, Json::error_handler_t::replace);
  *out += '\n';
}

}  // namespace tidegate::agent
