#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace tidegate::agent {

// Appends JSON, value by value, without making a tree of it first. The output is always valid
// UTF-8.
//
// Not thread-safe. Borrows the text.
class JsonWriter {
 public:
  explicit JsonWriter(std::string* out) : out_(out) {}

  // '{' or '[', and what ends them.
  void Open(char bracket);
  void Close(char bracket);
  // The value or the bracket comes next.
  JsonWriter& Key(std::string_view key);

  // Any bytes, written as AppendText of exposition.h does.
  void Text(std::string_view text);
  // One that has been written so already.
  void Shown(std::string_view text);
  void Number(double value);  // null if JSON has no word for it
  void Integer(int64_t value);
  void Unsigned(uint64_t value);
  void Bool(bool value);
  void Null();
  // Writes what `write` does, or nothing, and is false then, if the whole would be longer than
  // `most`.
  template <typename Write>
  bool Item(size_t most, const Write& write) {
    const size_t size = out_->size();
    const bool separate = separate_;
    write();
    if (out_->size() <= most) return true;
    out_->resize(size);
    separate_ = separate;
    return false;
  }

  void Texts(const std::map<std::string, std::string>& texts);  // as an object

 private:
  void Separate();
  void Quote(std::string_view text);

  std::string* const out_;
  std::string shown_;      // kept for its memory
  bool separate_ = false;  // before the next value
};

}  // namespace tidegate::agent
