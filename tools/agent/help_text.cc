#include "agent/help_text.h"

#include "agent/families.h"

namespace tidegate::agent {
namespace {

constexpr std::string_view kSampleUnit =
    ", in the unit of the samples (microseconds where durations are observed)";

bool TakeEnd(std::string_view end, std::string_view* text) {
  if (text->size() <= end.size() || text->substr(text->size() - end.size()) != end) return false;
  text->remove_suffix(end.size());
  return true;
}

// Of the samples of an interval.
std::string MeaningOf(const ColumnRow& timer_column) {
  std::string meaning(timer_column.meaning);
  meaning += " of the last interval";
  const bool is_count = &timer_column == &kTimerColumns[kTimerCount];
  return is_count ? meaning : meaning.append(kSampleUnit);
}

std::string OfGauge(std::string_view name) {
  for (const ColumnRow& column : kTimerColumns) {
    std::string_view timer = name;
    if (TakeEnd(column.name, &timer) && TakeEnd(".", &timer)) {
      return "last value; if " + std::string(timer) + " is a timer, the " + MeaningOf(column);
    }
  }
  return "last value, in the unit of what is stored";
}

std::string MeaningOf(Kind kind, std::string_view name, std::string_view column) {
  const FamilyRow& family = FamilyOf(kind, column);
  Meaning meaning = family.meaning;
  if (meaning == Meaning::kTotalOrRate) {
    meaning = TakeEnd(kMeterRatePart, &name) ? Meaning::kRate : Meaning::kTotal;
  }
  switch (meaning) {
    case Meaning::kStored:
      return OfGauge(name);
    case Meaning::kRate:
      return "increase per second in the last interval, in the unit of what is added";
    case Meaning::kTotal:
    case Meaning::kTotalOrRate:
      return "total so far, in the unit of what is added";
    case Meaning::kTimerColumn:
      return MeaningOf(kTimerColumns[family.column]);
    case Meaning::kPercentiles:
      return "percentiles of the last interval, and the sum of all samples that the agent has "
             "seen" +
             std::string(kSampleUnit) + "; _count is their number";
    case Meaning::kBuckets:
      return "number of samples below each bound, of all that the agent has seen, and their sum; "
             "bounds and sum are in the unit of the samples";
    case Meaning::kField:
      break;
  }
  return "newest value, in the unit of the field";
}

}  // namespace

std::string HelpOf(Kind kind, std::string_view name, std::string_view column) {
  return SourceOf(kind, name, column).append(": ").append(MeaningOf(kind, name, column));
}

}  // namespace tidegate::agent
