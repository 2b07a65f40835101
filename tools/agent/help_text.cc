#include "agent/help_text.h"

#include "agent/exposition.h"

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
std::string MeaningOf(std::string_view timer_column) {
  if (timer_column == kTimerColumns[kTimerCount]) return "number of samples of the last interval";
  std::string meaning;
  if (timer_column == kTimerColumns[kTimerMin]) meaning = "least sample";
  if (timer_column == kTimerColumns[kTimerMax]) meaning = "largest sample";
  if (timer_column == kTimerColumns[kTimerAvg]) meaning = "average";
  if (timer_column == kTimerColumns[kTimerSum]) meaning = "sum";
  constexpr std::string_view kPercentile = "pct";
  if (timer_column.substr(0, kPercentile.size()) == kPercentile) {
    std::string digits(timer_column.substr(kPercentile.size()));
    if (digits.size() > 2) digits.insert(2, ".");
    meaning = "percentile " + digits;
  }
  return meaning.append(" of the last interval").append(kSampleUnit);
}

std::string OfGauge(std::string_view name) {
  for (const std::string_view column : kTimerColumns) {
    std::string_view timer = name;
    if (TakeEnd(column, &timer) && TakeEnd(".", &timer)) {
      return "last value; if " + std::string(timer) + " is a timer, the " + MeaningOf(column);
    }
  }
  return "last value, in the unit of what is stored";
}

std::string MeaningOf(Kind kind, std::string_view name, std::string_view column) {
  std::string rate = "increase per second in the last interval, in the unit of what is added";
  std::string total = "total so far, in the unit of what is added";
  switch (kind) {
    case Kind::kGauge:
      return OfGauge(name);
    case Kind::kRate:
      return rate;
    case Kind::kCounter:
      return total;
    case Kind::kMeter:
      return TakeEnd(".rate", &name) ? rate : total;
    case Kind::kDeltaCounter:
      return column == kDeltaColumns[kDeltaRateColumn] ? rate : total;
    case Kind::kTimerRow:
      if (!column.empty()) return MeaningOf(column);
      return "percentiles of the last interval, and the sum of all samples that the agent has "
             "seen" +
             std::string(kSampleUnit) + "; _count is their number";
    case Kind::kHistogram:
      return "number of samples below each bound, of all that the agent has seen, and their sum; "
             "bounds and sum are in the unit of the samples";
    case Kind::kRow:
      break;
  }
  return "newest value, in the unit of the field";
}

}  // namespace

std::string HelpOf(Kind kind, std::string_view name, std::string_view column) {
  return SourceOf(kind, name, column).append(": ").append(MeaningOf(kind, name, column));
}

}  // namespace tidegate::agent
