#pragma once

#include <charconv>
#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <vector>

#include "tidegate/metric_tag.h"

namespace tidegate {

/// One tag for the time of a call, which refers to texts that stand elsewhere and copies nothing:
///
///     metric->WithTags({{"method", method}, {"status", 200}})->Emit(Incr(1));
///
/// The value is a text or a number. Of the numbers, integers are written in decimals, doubles and
/// their like as short as reading them back allows ("0.5", "1e+20"), a `char` as the character that
/// it is, a `bool` as "true" or "false". Allocates nothing. A plain value; any thread. To be made
/// in the arguments of a call, where temporaries live long enough: a view that is kept longer than
/// its texts dangles.
class TagView {
 public:
  /// From a text.
  TagView(std::string_view key, std::string_view value)
      : key_(key), text_(value.data()), size_(value.size()) {}
  /// From a number. From a C string too, and null is the empty text, which no series has.
  template <class Value,
            std::enable_if_t<std::is_arithmetic_v<Value> || std::is_same_v<Value, const char*> ||
                                 std::is_same_v<Value, char*> || std::is_null_pointer_v<Value>,
                             int> = 0>
  TagView(std::string_view key, Value value) : key_(key) {
    if constexpr (std::is_null_pointer_v<Value>) {
      SetText({});
    } else if constexpr (std::is_pointer_v<Value>) {
      SetText(value != nullptr ? std::string_view(value) : std::string_view());
    } else if constexpr (std::is_same_v<Value, bool>) {
      SetText(value ? "true" : "false");
    } else if constexpr (std::is_same_v<Value, char>) {
      number_[0] = value;
      size_ = 1;
    } else {
      static_assert(std::is_floating_point_v<Value> || sizeof(Value) <= sizeof(long long),
                    "An integer of more than 64 bits needs more room than there is.");
      // The sign makes a number of what is a kind of character.
      const std::to_chars_result end = std::to_chars(number_, number_ + sizeof(number_), +value);
      size_ = static_cast<size_t>(end.ptr - number_);
    }
  }
  /// From a tag, which has to live as long.
  TagView(const MetricTag& tag) : TagView(tag.key, tag.value) {}  // braces may hold both

  std::string_view Key() const { return key_; }  ///< the name of the tag
  /// Good for as long as this object and its texts.
  std::string_view Value() const { return {text_ != nullptr ? text_ : number_, size_}; }

 private:
  void SetText(std::string_view text) {
    text_ = text.data();
    size_ = text.size();
  }

  std::string_view key_;
  const char* text_ = nullptr;  ///< null where the value is in `number_`
  size_t size_ = 0;
  char number_[32];  // a `long double` takes 29
};

/// Copies of `tags`, to be kept.
inline std::vector<MetricTag> ListOf(std::initializer_list<TagView> tags) {
  std::vector<MetricTag> list;
  list.reserve(tags.size());
  for (const TagView& tag : tags) {
    list.emplace_back(std::string(tag.Key()), std::string(tag.Value()));
  }
  return list;
}

}  // namespace tidegate
