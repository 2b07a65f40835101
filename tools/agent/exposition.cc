#include "agent/exposition.h"

#include <cstdlib>
#include <iterator>
#include <type_traits>

#include "agent/fitted_names.h"
#include "agent/numbers.h"
#include "agent/utf8.h"

namespace tidegate::agent {
namespace {

constexpr std::string_view kReplacement = "\xef\xbf\xbd";  // U+FFFD

// The longest that stand in a line, with what is around them.
constexpr size_t kMaxNumberSize = sizeof(" -1.7976931348623157e+308") - 1;
constexpr size_t kMaxTimestampSize = sizeof(" -9223372036854774000") - 1;
constexpr size_t kMaxLeSize = sizeof(R"(,le="-1.7976931348623157e+308")") - 1;
constexpr size_t kMaxQuantileSize = sizeof(R"(,quantile="0.999")") - 1;
constexpr size_t kBraces = 2;
static_assert(kMaxQuantileSize > kCountEnd.size());

// As CharacterSize, but NUL counts as none: receivers take it for the end of the page.
size_t ShownSize(std::string_view text) { return text[0] == '\0' ? 0 : CharacterSize(text); }

bool IsPlain(char c) {
  return c >= ' ' && c != '\\' && c != '"';  // no byte of a longer character, as char is signed
}
static_assert(std::is_signed_v<char>);

// Hands out the pieces of the escaped text. Receivers refuse a whole page for one byte that is not
// UTF-8.
template <typename Handle>
void Escape(std::string_view text, bool quotes, const Handle& handle) {
  for (size_t i = 0; i < text.size();) {
    size_t size = 0;
    while (i + size < text.size() && IsPlain(text[i + size])) ++size;
    if (size == 0) size = ShownSize(text.substr(i));
    std::string_view piece = text.substr(i, size);
    if (size == 0) {
      piece = kReplacement;
      size = 1;
    } else if (piece == "\n") {
      piece = "\\n";
    } else if (piece == "\\") {
      piece = "\\\\";
    } else if (quotes && piece == "\"") {
      piece = "\\\"";
    }
    handle(piece);
    i += size;
  }
}

void AppendEscaped(std::string_view text, bool quotes, std::string* out) {
  Escape(text, quotes, [&](std::string_view piece) { *out += piece; });
}

void AppendHead(std::string_view name, std::string_view help, std::string_view type,
                std::string* page) {
  *page += "# HELP ";
  *page += name;
  *page += ' ';
  AppendEscaped(help, false, page);
  *page += "\n# TYPE ";
  *page += name;
  *page += ' ';
  *page += type;
  *page += '\n';
}

}  // namespace

void AppendText(std::string_view text, std::string* out) {
  ForEachCharacter(text, [out](std::string_view rest, size_t size) {
    if (size == 0 || rest.front() == '\0' || rest.substr(0, 2) == "\\x") {
      AppendHexByte(rest.front(), out);
    } else {
      *out += rest.substr(0, size);
    }
  });
}

void AppendFamilyHead(const FamilyPart& family, std::string_view source, std::string* page) {
  AppendHead(family.name, source, FormOf(family.type).type, page);
}

size_t EscapedSize(std::string_view text, bool quotes) {
  size_t size = 0;
  Escape(text, quotes, [&](std::string_view piece) { size += piece.size(); });
  return size;
}

size_t HeadSize(const FamilyPart& family, std::string_view source) {
  constexpr size_t kRest = sizeof("# HELP  \n# TYPE  \n") - 1;
  return kRest + 2 * family.name.size() + EscapedSize(source, false) +
         FormOf(family.type).type.size();
}

size_t LabelSize(std::string_view key, std::string_view value) {
  constexpr size_t kRest = sizeof(R"(="",)") - 1;
  std::string name;
  AssignLabelName(key, &name);
  return name.size() + EscapedSize(value, true) + kRest;
}

LinesSize SeriesSize(const FamilyPart& family, const std::vector<double>& bounds) {
  constexpr size_t kRest = kBraces + kMaxNumberSize + kMaxTimestampSize + 1;  // the line's end
  const size_t line = family.name.size() + kRest;
  switch (family.type) {
    case FamilyType::kSummary: {
      const size_t lines = std::size(kTimerColumns) - kTimerFirstQuantile + 2;
      return {lines, lines * (line + kMaxQuantileSize)};
    }
    case FamilyType::kHistogram: {
      const size_t lines = bounds.size() + 2;
      return {lines, lines * (line + kBucketEnd.size() + kMaxLeSize)};
    }
    case FamilyType::kGauge:
    case FamilyType::kCounter:
    case FamilyType::kUntyped:
      break;
  }
  return {1, line};
}

void SampleWriter::AddLabel(std::string_view key, std::string_view value) {
  if (!labels_.empty()) labels_ += ',';
  AssignLabelName(key, &label_);
  labels_ += label_;
  labels_ += "=\"";
  AppendEscaped(value, true, &labels_);
  labels_ += '"';
}

void SampleWriter::Samples(const FamilyPart& family, const std::vector<double>& bounds,
                           const Cell* cells) {
  ForEachSample(family, bounds, cells,
                [&](const FamilySample& sample) { Line(family.name, sample); });
}

void SampleWriter::Integer(std::string_view name, uint64_t value) {
  BeginLine(name, {});
  page_->append(std::to_string(value)).append("\n");
}

void SampleWriter::BeginLine(std::string_view name, const FamilySample& sample) {
  *page_ += name;
  *page_ += sample.end;
  const bool own_label = !sample.label.empty();
  if (!labels_.empty() || own_label) {
    *page_ += '{';
    *page_ += labels_;
    if (!labels_.empty() && own_label) *page_ += ',';
    if (own_label) {
      *page_ += sample.label;
      *page_ += "=\"";
      *page_ += sample.label_value;
      *page_ += '"';
    }
    *page_ += '}';
  }
  *page_ += ' ';
}

void SampleWriter::Line(std::string_view name, const FamilySample& sample) {
  BeginLine(name, sample);
  AppendNumber(sample.value, kSampleWords, page_);
  if (timestamps_ && std::abs(sample.timestamp) <= kMaxSampleSeconds) {
    *page_ += ' ';
    *page_ += std::to_string(sample.timestamp);
    *page_ += "000";
  }
  *page_ += '\n';
}

void AppendHealth(const Health& health, std::string* page) {
  std::string_view family;
  health.ForEach([&](const Health::Sample& sample) {
    if (sample.name != family) {
      family = sample.name;
      AppendHead(sample.name, sample.help, sample.counter ? "counter" : "gauge", page);
    }
    SampleWriter writer(false, page);
    if (!sample.owner.empty()) writer.AddLabel(sample.owner, sample.owner_value);
    if (!sample.label.empty()) writer.AddLabel(sample.label, sample.label_value);
    writer.Integer(sample.name, sample.value);
  });
}

}  // namespace tidegate::agent
