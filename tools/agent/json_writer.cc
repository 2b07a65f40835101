#include "agent/json_writer.h"

#include <algorithm>

#include "agent/exposition.h"
#include "agent/numbers.h"
#include "agent/utf8.h"

namespace tidegate::agent {
namespace {

constexpr NumberWords kNoNumber = {"null", "null", "null"};

bool IsPlain(char c) {
  return static_cast<signed char>(c) >= ' ' && c != '\\' && c != '"' && c != '\x7f';
}

}  // namespace

void JsonWriter::Open(char bracket) {
  Separate();
  *out_ += bracket;
  separate_ = false;
}

void JsonWriter::Close(char bracket) {
  *out_ += bracket;
  separate_ = true;
}

JsonWriter& JsonWriter::Key(std::string_view key) {
  Text(key);
  *out_ += ':';
  separate_ = false;
  return *this;
}

void JsonWriter::Text(std::string_view text) {
  if (std::all_of(text.begin(), text.end(), IsPlain)) {
    Separate();
    ((*out_ += '"') += text) += '"';
    return;
  }
  shown_.clear();
  AppendText(text, &shown_);
  Shown(shown_);
}

void JsonWriter::Shown(std::string_view text) {
  Separate();
  *out_ += '"';
  Quote(text);
  *out_ += '"';
}

void JsonWriter::Quote(std::string_view text) {
  ForEachCharacter(text, [this](std::string_view rest, size_t size) {
    const char c = rest.front();
    if (size == 0) {
      *out_ += '\\';
      AppendHexByte(c, out_);
    } else if (size > 1 || IsPlain(c)) {
      *out_ += rest.substr(0, size);
    } else if (c == '"' || c == '\\') {
      (*out_ += '\\') += c;
    } else {
      constexpr char kDigits[] = "0123456789abcdef";
      *out_ += "\\u00";
      *out_ += {kDigits[c >> 4], kDigits[c & 15]};
    }
  });
}

void JsonWriter::Number(double value) {
  Separate();
  AppendNumber(value, kNoNumber, out_);
}

void JsonWriter::Integer(int64_t value) {
  Separate();
  *out_ += std::to_string(value);
}

void JsonWriter::Unsigned(uint64_t value) {
  Separate();
  *out_ += std::to_string(value);
}

void JsonWriter::Bool(bool value) {
  Separate();
  *out_ += value ? "true" : "false";
}

void JsonWriter::Null() {
  Separate();
  *out_ += "null";
}

void JsonWriter::Texts(const std::map<std::string, std::string>& texts) {
  Open('{');
  for (const auto& [name, text] : texts) Key(name).Text(text);
  Close('}');
}

void JsonWriter::Separate() {
  if (separate_) *out_ += ',';
  separate_ = true;
}

}  // namespace tidegate::agent
