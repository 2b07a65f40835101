#include "agent/exposition.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <set>

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

std::string Fit(std::string_view name, bool colons) {
  std::string fitted;
  fitted.reserve(name.size() + 1);
  if (name.empty() || (name[0] >= '0' && name[0] <= '9')) fitted += '_';
  for (const char c : name) {
    const bool fits = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '_' || (colons && c == ':');
    fitted += fits ? c : '_';
  }
  return fitted;
}

void AppendNumber(double value, std::string* out) {
  if (std::isnan(value)) {
    *out += "NaN";
  } else if (std::isinf(value)) {
    *out += value > 0 ? "+Inf" : "-Inf";
  } else {
    char digits[32];
    const char* end = std::to_chars(std::begin(digits), std::end(digits), value).ptr;
    out->append(digits, static_cast<size_t>(end - digits));
  }
}

// The bytes of the UTF-8 character that `text` begins with, or 0 if it begins with none. A NUL
// counts as none: receivers take it for the end of the page.
size_t CharacterSize(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return first == 0 ? 0 : 1;
  const size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < size) return 0;
  for (size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  // Too long a form, a surrogate, or beyond the last character.
  const unsigned char second = byte(1);
  const bool odd = (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
                   (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f);
  return odd ? 0 : size;
}

// Receivers refuse a whole page for one byte that is not UTF-8.
void AppendEscaped(std::string_view text, bool quotes, std::string* out) {
  while (!text.empty()) {
    const size_t size = CharacterSize(text);
    if (size == 0) {
      *out += kReplacement;
    } else if (text[0] == '\n') {
      *out += "\\n";
    } else if (text[0] == '\\' || (quotes && text[0] == '"')) {
      *out += {'\\', text[0]};
    } else {
      *out += text.substr(0, size);
    }
    text.remove_prefix(size == 0 ? 1 : size);
  }
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

std::string MetricNameOf(std::string_view name) { return Fit(name, true); }

std::string LabelNameOf(std::string_view name) {
  std::string fitted = Fit(name, false);
  return fitted.compare(0, 2, "__") == 0 ? "exported" + fitted : fitted;
}

std::vector<FamilyPart> FamiliesOf(Kind kind, std::string_view name,
                                   const std::vector<std::string>& columns) {
  const std::string fitted = MetricNameOf(name);
  const std::string text(name);
  const auto column = [&](size_t i) {
    return FamilyPart{
        fitted + '_' + Fit("_" + columns[i], true).substr(1), FamilyType::kGauge, i,
        "column " + columns[i] + (kind == Kind::kRow ? " of row " : " of timer ") + text};
  };
  switch (kind) {
    case Kind::kGauge:
      return {{fitted, FamilyType::kGauge, 0, "gauge " + text}};
    case Kind::kRate:
      return {{fitted, FamilyType::kGauge, 0, "rate " + text}};
    case Kind::kCounter:
      return {{WithTotal(fitted), FamilyType::kCounter, 0, "counter " + text}};
    case Kind::kMeter:
      return {{fitted, FamilyType::kUntyped, 0, "meter " + text}};
    case Kind::kDeltaCounter:
      return {
          {WithTotal(fitted), FamilyType::kCounter, kDeltaCounterColumn, "delta counter " + text},
          {fitted + "_rate", FamilyType::kGauge, kDeltaRateColumn,
           "rate of the delta counter " + text}};
    case Kind::kTimerRow:
      return {{fitted, FamilyType::kSummary, 0, "timer " + text},
              column(kTimerMin),
              column(kTimerMax),
              column(kTimerAvg)};
    case Kind::kHistogram:
      return {{fitted, FamilyType::kHistogram, 0, "histogram " + text}};
    case Kind::kRow:
      break;
  }
  std::vector<FamilyPart> families;
  // Nothing keeps a row from having two columns of one name.
  std::set<std::string_view> seen;
  for (size_t i = 0; i < columns.size(); ++i) {
    if (seen.insert(columns[i]).second) families.push_back(column(i));
  }
  return families;
}

std::vector<std::string> SampleNamesOf(const FamilyPart& family) {
  std::vector<std::string> names = {family.name};
  if (family.type == FamilyType::kSummary || family.type == FamilyType::kHistogram) {
    names.push_back(family.name + "_sum");
    names.push_back(family.name + "_count");
  }
  if (family.type == FamilyType::kHistogram) names.push_back(family.name + "_bucket");
  return names;
}

void AppendFamilyHead(const FamilyPart& family, std::string* page) {
  AppendHead(family.name, family.source, TypeName(family.type), page);
}

void SampleWriter::AddLabel(std::string_view key, std::string_view value) {
  if (!labels_.empty()) labels_ += ',';
  labels_ += LabelNameOf(key);
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
  Line(name, "_sum", {}, cells[kTimerSum].value, cells[kTimerSum].timestamp);
  Line(name, "_count", {}, cells[kTimerCount].value, cells[kTimerCount].timestamp);
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
    AppendNumber(last ? INFINITY : bounds[i + 1], &le);
    le += '"';
    Line(name, "_bucket", le, below, cells[i].timestamp);
  }
  const Cell& sum = cells[bounds.size()];
  const Cell& count = cells[bounds.size() + 1];
  Line(name, "_sum", {}, sum.value, sum.timestamp);
  Line(name, "_count", {}, count.value, count.timestamp);
}

void SampleWriter::Line(std::string_view name, std::string_view suffix, std::string_view extra,
                        double value, int64_t timestamp) {
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
  AppendNumber(value, page_);
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
    writer.Single(sample.name, {sample.value, 0});
  });
}

}  // namespace tidegate::agent
