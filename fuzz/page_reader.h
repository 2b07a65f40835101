#pragma once

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "fuzz/target.h"

namespace tidegate::fuzz {

// Reads a page of metrics as strictly as the text format 0.0.4 is written down, and shares nothing
// with what writes it. Anything that a receiver could refuse or misread ends the process.
class PageReader {
 public:
  // Returns the number of samples.
  size_t Read(std::string_view page) {
    Require(page.empty() || page.back() == '\n', "a page ends with a line");
    CheckCharacters(page);
    while (!page.empty()) {
      rest_ = page.substr(0, page.find('\n'));
      page.remove_prefix(rest_.size() + 1);
      if (TakeIf("# HELP ")) {
        ReadHelp();
      } else if (TakeIf("# TYPE ")) {
        ReadType();
      } else {
        ReadSample();
      }
    }
    EndFamily();
    return samples_.size();
  }

 private:
  struct Histogram {
    double le = -INFINITY;
    double below = 0;
    bool whole = false;  // the bucket of +Inf was there
    bool has_count = false;
  };

  // UTF-8, and no NUL.
  static void CheckCharacters(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
      const auto lead = static_cast<unsigned char>(text[i++]);
      Require(lead != 0, "a page has no NUL");
      if (lead < 0x80) continue;
      const int more = lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : 1;
      Require(lead >= 0xc2 && lead <= 0xf4, "a character begins where it has to");
      uint32_t code = lead & (0x3f >> more);
      for (int k = 0; k < more; ++k) {
        Require(i < text.size() && (text[i] & 0xc0) == 0x80, "a character is whole");
        code = code << 6 | (text[i++] & 0x3f);
      }
      constexpr uint32_t kFirst[] = {0x80, 0x800, 0x10000};
      Require(code >= kFirst[more - 1] && code <= 0x10ffff && (code < 0xd800 || code > 0xdfff),
              "a character is one");
    }
  }

  void ReadHelp() {
    EndFamily();
    family_ = ReadName(true);
    Require(families_.insert(family_).second, "a family comes once");
    Take(" ");
    while (!rest_.empty()) {
      if (TakeIf("\\")) {
        Require(TakeIf("\\") || TakeIf("n"), "a text has two escapes");
      } else {
        rest_.remove_prefix(1);
      }
    }
  }

  void ReadType() {
    Require(type_.empty() && !family_.empty(), "a type comes after its help");
    Require(ReadName(true) == family_, "a type is that of the family before");
    Take(" ");
    type_ = rest_;
    const auto claim = [this](const char* suffix) {
      Require(names_.insert(family_ + suffix).second, "a name is that of one family");
    };
    claim("");
    if (type_ == "summary" || type_ == "histogram") {
      claim("_sum");
      claim("_count");
    }
    if (type_ == "histogram") claim("_bucket");
    constexpr std::string_view kTypes[] = {"gauge", "counter", "untyped", "summary", "histogram"};
    Require(std::find(std::begin(kTypes), std::end(kTypes), type_) != std::end(kTypes),
            "a type is known");
  }

  void ReadSample() {
    Require(!type_.empty(), "a sample comes after its type");
    const std::string name = ReadName(true);
    Require(name.compare(0, family_.size(), family_) == 0, "a sample is one of the family");
    const std::string suffix = name.substr(family_.size());
    std::map<std::string, std::string> labels;
    if (TakeIf("{")) {
      do {
        const std::string label = ReadName(false);
        Require(label.compare(0, 2, "__") != 0, "no label is a reserved one");
        Take("=\"");
        Require(labels.emplace(label, ReadValue()).second, "a sample has a label once");
      } while (TakeIf(","));
      Take("}");
    }
    Take(" ");
    const double value = ReadNumber();
    if (TakeIf(" ")) ReadTime();
    Require(rest_.empty(), "a sample ends with its line");
    Require(samples_.insert({name, labels}).second, "a series comes once");
    has_sample_ = true;
    if (type_ == "histogram") {
      CheckHistogram(suffix, labels, value);
    } else if (type_ == "summary") {
      Require(labels.count("quantile") == (suffix.empty() ? 1 : 0), "a quantile is named");
      Require(suffix.empty() || suffix == "_sum" || suffix == "_count",
              "a summary has three lines");
    } else {
      Require(suffix.empty(), "a family has one name");
    }
  }

  void CheckHistogram(const std::string& suffix, std::map<std::string, std::string> labels,
                      double value) {
    const auto le = labels.find("le");
    Require((suffix == "_bucket") == (le != labels.end()), "a bucket has a bound");
    const std::string bound = le == labels.end() ? "" : le->second;
    labels.erase("le");
    Histogram& histogram = histograms_[labels];
    if (suffix == "_bucket") {
      Require(!histogram.whole, "the last bucket is +Inf");
      rest_ = bound;
      const double number = ReadNumber();
      Require(rest_.empty() && number > histogram.le, "bounds ascend");
      Require(value >= histogram.below, "buckets are cumulative");
      histogram = {number, value, number == INFINITY, false};
    } else if (suffix == "_count") {
      Require(histogram.whole && value == histogram.below, "the count is that of all buckets");
      histogram.has_count = true;
    } else {
      Require(suffix == "_sum", "a histogram has three kinds of lines");
    }
  }

  void EndFamily() {
    Require(family_.empty() || has_sample_, "a family has a sample");
    for (const auto& [labels, histogram] : histograms_) {
      Require(histogram.whole && histogram.has_count, "a histogram is whole");
    }
    histograms_.clear();
    family_.clear();
    type_.clear();
    has_sample_ = false;
  }

  std::string ReadName(bool metric) {
    const auto fits = [&](char c, bool first) {
      return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (metric && c == ':') ||
             (!first && c >= '0' && c <= '9');
    };
    size_t size = 0;
    while (size < rest_.size() && fits(rest_[size], size == 0)) ++size;
    Require(size > 0, "a name stands where it has to");
    std::string name(rest_.substr(0, size));
    rest_.remove_prefix(size);
    return name;
  }

  // Up to the quote that ends it.
  std::string ReadValue() {
    std::string value;
    while (true) {
      const size_t plain = std::min(rest_.find_first_of("\"\\"), rest_.size());
      value += rest_.substr(0, plain);
      rest_.remove_prefix(plain);
      if (TakeIf("\"")) return value;
      Require(!rest_.empty(), "a value ends");
      const bool escaped = TakeIf("\\");
      Require(!rest_.empty() &&
                  (!escaped || std::string_view("\\\"n").find(rest_[0]) != std::string_view::npos),
              "a value has three escapes");
      value += escaped && rest_[0] == 'n' ? '\n' : rest_[0];
      rest_.remove_prefix(1);
    }
  }

  double ReadNumber() {
    if (TakeIf("NaN")) return NAN;
    if (TakeIf("+Inf")) return INFINITY;
    if (TakeIf("-Inf")) return -INFINITY;
    double number = 0;
    const auto [end, failure] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), number);
    Require(failure == std::errc() && std::isfinite(number), "a number stands where it has to");
    rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
    return number;
  }

  void ReadTime() {
    int64_t time = 0;
    const auto [end, failure] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), time);
    Require(failure == std::errc(), "a time has 64 bits");
    rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
  }

  bool TakeIf(std::string_view text) {
    if (rest_.substr(0, text.size()) != text) return false;
    rest_.remove_prefix(text.size());
    return true;
  }
  void Take(std::string_view text) { Require(TakeIf(text), "a separator stands where it has to"); }

  std::string_view rest_;  // of the line
  std::set<std::string> families_;
  std::set<std::string> names_;
  std::set<std::pair<std::string, std::map<std::string, std::string>>> samples_;

  // Of the family.
  std::string family_;
  std::string type_;
  bool has_sample_ = false;
  std::map<std::map<std::string, std::string>, Histogram> histograms_;
};

}  // namespace tidegate::fuzz
