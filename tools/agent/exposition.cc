#include "agent/exposition.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <set>
#include <type_traits>

#include "agent/numbers.h"
#include "agent/utf8.h"

namespace tidegate::agent {
namespace {

constexpr std::string_view kQuantiles[] = {
    R"(quantile="0.5")",  R"(quantile="0.9")",   R"(quantile="0.95")",
    R"(quantile="0.99")", R"(quantile="0.999")",
};
static_assert(kTimerFirstQuantile + std::size(kQuantiles) == std::size(kTimerColumns));

// Receivers refuse a whole page for one timestamp beyond 64 bits of milliseconds.
constexpr int64_t kMaxSeconds = INT64_MAX / 1000 - 1;

constexpr std::string_view kReplacement = "\xef\xbf\xbd";  // U+FFFD

constexpr std::string_view kSum = "_sum";
constexpr std::string_view kCount = "_count";
constexpr std::string_view kBucket = "_bucket";

// The longest that stand in a line, with what is around them.
constexpr size_t kMaxNumberSize = sizeof(" -1.7976931348623157e+308") - 1;
constexpr size_t kMaxTimestampSize = sizeof(" -9223372036854774000") - 1;
constexpr size_t kMaxLeSize = sizeof(R"(,le="-1.7976931348623157e+308")") - 1;
constexpr size_t kMaxQuantileSize = sizeof(R"(,quantile="0.999")") - 1;
constexpr size_t kBraces = 2;
static_assert(kMaxQuantileSize > kCount.size());

void AppendFitted(std::string_view name, bool colons, std::string* fitted) {
  if (name.empty() || (name[0] >= '0' && name[0] <= '9')) *fitted += '_';
  for (const char c : name) {
    const bool fits = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || (colons && c == ':');
    *fitted += fits ? c : '_';
  }
}

constexpr NumberWords kNumberWords = {"NaN", "+Inf", "-Inf"};

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

std::string_view TypeName(FamilyType type) {
  switch (type) {
    case FamilyType::kGauge:
      return "gauge";
    case FamilyType::kCounter:
      return "counter";
    case FamilyType::kUntyped:
      return "untyped";
    case FamilyType::kSummary:
      return "summary";
    case FamilyType::kHistogram:
      return "histogram";
  }
  return {};
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

std::string WithTotal(std::string name) {
  constexpr std::string_view kTotal = "_total";
  const bool has = name.size() >= kTotal.size() &&
                   name.compare(name.size() - kTotal.size(), kTotal.size(), kTotal) == 0;
  return has ? name : name.append(kTotal);
}

}  // namespace

std::string MetricNameOf(std::string_view name) {
  std::string fitted;
  fitted.reserve(name.size() + 1);
  AppendFitted(name, true, &fitted);
  return fitted;
}

void AssignLabelName(std::string_view name, std::string* fitted) {
  fitted->clear();
  AppendFitted(name, false, fitted);
  if (fitted->compare(0, 2, "__") == 0) fitted->insert(0, "exported");
}

void AppendText(std::string_view text, std::string* out) {
  ForEachCharacter(text, [out](std::string_view rest, size_t size) {
    if (size == 0 || rest.front() == '\0' || rest.substr(0, 2) == "\\x") {
      AppendHexByte(rest.front(), out);
    } else {
      *out += rest.substr(0, size);
    }
  });
}

std::vector<FamilyPart> FamiliesOf(Kind kind, std::string_view name,
                                   const std::vector<std::string>& columns) {
  const std::string fitted = MetricNameOf(name);
  const auto column = [&](size_t i) {
    FamilyPart part{fitted, FamilyType::kGauge, i};
    part.name.reserve(fitted.size() + 1 + columns[i].size());
    // The name is in front, so a digit stands well.
    AppendFitted("_" + columns[i], true, &part.name);
    return part;
  };
  switch (kind) {
    case Kind::kGauge:
    case Kind::kRate:
      return {{fitted, FamilyType::kGauge, 0}};
    case Kind::kCounter:
      return {{WithTotal(fitted), FamilyType::kCounter, 0}};
    case Kind::kMeter:
      return {{fitted, FamilyType::kUntyped, 0}};
    case Kind::kDeltaCounter:
      return {{WithTotal(fitted), FamilyType::kCounter, kDeltaCounterColumn},
              {fitted + "_rate", FamilyType::kGauge, kDeltaRateColumn}};
    case Kind::kTimerRow:
      return {{fitted, FamilyType::kSummary, 0},
              column(kTimerMin),
              column(kTimerMax),
              column(kTimerAvg)};
    case Kind::kHistogram:
      return {{fitted, FamilyType::kHistogram, 0}};
    case Kind::kRow:
      break;
  }
  std::vector<FamilyPart> families;
  families.reserve(columns.size());
  // Nothing keeps a row from having two columns of one name.
  std::set<std::string_view> seen;
  for (size_t i = 0; i < columns.size(); ++i) {
    if (seen.insert(columns[i]).second) families.push_back(column(i));
  }
  return families;
}

const std::vector<std::string_view>& SuffixesOf(FamilyType type) {
  static const std::vector<std::string_view> of_single = {""};
  static const std::vector<std::string_view> of_summary = {"", kSum, kCount};
  static const std::vector<std::string_view> of_histogram = {"", kSum, kCount, kBucket};
  if (type == FamilyType::kHistogram) return of_histogram;
  return type == FamilyType::kSummary ? of_summary : of_single;
}

std::string SourceOf(Kind kind, std::string_view name, std::string_view column) {
  std::string source;
  switch (kind) {
    case Kind::kGauge:
      source = "gauge ";
      break;
    case Kind::kRate:
      source = "rate ";
      break;
    case Kind::kCounter:
      source = "counter ";
      break;
    case Kind::kMeter:
      source = "meter ";
      break;
    case Kind::kDeltaCounter:
      source = column == kDeltaColumns[kDeltaRateColumn] ? "rate of the delta counter "
                                                         : "delta counter ";
      break;
    case Kind::kTimerRow:
      if (!column.empty()) source.append("column ").append(column).append(" of ");
      source += "timer ";
      break;
    case Kind::kHistogram:
      source = "histogram ";
      break;
    case Kind::kRow:
      source.append("column ").append(column).append(" of row ");
      break;
  }
  return source.append(name);
}

void AppendFamilyHead(const FamilyPart& family, std::string_view source, std::string* page) {
  AppendHead(family.name, source, TypeName(family.type), page);
}

size_t EscapedSize(std::string_view text, bool quotes) {
  size_t size = 0;
  Escape(text, quotes, [&](std::string_view piece) { size += piece.size(); });
  return size;
}

size_t HeadSize(const FamilyPart& family, std::string_view source) {
  constexpr size_t kRest = sizeof("# HELP  \n# TYPE  \n") - 1;
  return kRest + 2 * family.name.size() + EscapedSize(source, false) + TypeName(family.type).size();
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
      const size_t lines = std::size(kQuantiles) + 2;
      return {lines, lines * (line + kMaxQuantileSize)};
    }
    case FamilyType::kHistogram: {
      const size_t lines = bounds.size() + 2;
      return {lines, lines * (line + kBucket.size() + kMaxLeSize)};
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

void SampleWriter::Single(std::string_view name, const Cell& cell) {
  Line(name, {}, {}, cell.value, cell.timestamp);
}

void SampleWriter::Summary(const std::string& name, const Cell* cells) {
  for (size_t i = 0; i < std::size(kQuantiles); ++i) {
    const Cell& cell = cells[kTimerFirstQuantile + i];
    Line(name, {}, kQuantiles[i], cell.value, cell.timestamp);
  }
  Line(name, kSum, {}, cells[kTimerSum].value, cells[kTimerSum].timestamp);
  Line(name, kCount, {}, cells[kTimerCount].value, cells[kTimerCount].timestamp);
}

void SampleWriter::Histogram(const std::string& name, const std::vector<double>& bounds,
                             const Cell* cells) {
  double below = 0;
  std::string le;
  for (size_t i = 0; i < bounds.size(); ++i) {
    below += cells[i].value;
    const bool last = i + 1 == bounds.size();
    // Bounds that are equal in their six decimals would give the same line twice.
    if (!last && i + 2 < bounds.size() && bounds[i + 1] == bounds[i + 2]) continue;
    le = "le=\"";
    AppendNumber(last ? INFINITY : bounds[i + 1], kNumberWords, &le);
    le += '"';
    Line(name, kBucket, le, below, cells[i].timestamp);
  }
  const Cell& sum = cells[bounds.size()];
  const Cell& count = cells[bounds.size() + 1];
  Line(name, kSum, {}, sum.value, sum.timestamp);
  // What a packet says of it can be anything, and receivers want that of all buckets.
  Line(name, kCount, {}, below, count.timestamp);
}

void SampleWriter::Integer(std::string_view name, uint64_t value) {
  BeginLine(name, {}, {});
  page_->append(std::to_string(value)).append("\n");
}

void SampleWriter::BeginLine(std::string_view name, std::string_view suffix,
                             std::string_view extra) {
  *page_ += name;
  *page_ += suffix;
  if (!labels_.empty() || !extra.empty()) {
    *page_ += '{';
    *page_ += labels_;
    if (!labels_.empty() && !extra.empty()) *page_ += ',';
    *page_ += extra;
    *page_ += '}';
  }
  *page_ += ' ';
}

void SampleWriter::Line(std::string_view name, std::string_view suffix, std::string_view extra,
                        double value, int64_t timestamp) {
  BeginLine(name, suffix, extra);
  AppendNumber(value, kNumberWords, page_);
  if (timestamps_ && std::abs(timestamp) <= kMaxSeconds) {
    *page_ += ' ';
    *page_ += std::to_string(timestamp);
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
    if (!sample.label.empty()) writer.AddLabel(sample.label, sample.label_value);
    writer.Integer(sample.name, sample.value);
  });
}

}  // namespace tidegate::agent
