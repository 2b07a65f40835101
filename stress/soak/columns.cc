#include "soak/columns.h"

#include <array>
#include <optional>

namespace tidegate::stress {
namespace {

enum WireType : uint8_t {
  kWireGauge = 1,
  kWireRate = 2,
  kWireCounter = 3,
  kWireMeter = 4,
  kWireTimer = 5,
  kWireDeltaCounter = 8,
};

bool EndsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool BeginsWith(const std::string& text, const std::string& begin) {
  return text.compare(0, begin.size(), begin) == 0;
}

// A block with one nameless number; `name` is its full name.
std::optional<Column> ColumnOfNumber(uint8_t wire_type, const std::string& name) {
  switch (wire_type) {
    case kWireGauge:  // a timer in single numbers
      if (EndsWith(name, ".sum")) return Column::kTimerSum;
      if (EndsWith(name, ".counter")) return Column::kTimerCount;
      return std::nullopt;
    case kWireRate:
      return Column::kRate;
    case kWireCounter:
      return Column::kCounter;
    case kWireMeter:
      return EndsWith(name, ".rate") ? Column::kMeterRate : Column::kMeter;
    default:
      return std::nullopt;
  }
}

std::optional<Column> ColumnOfHistogram(const std::string& field) {
  if (EndsWith(field, ":sum")) return Column::kHistogramSum;
  if (EndsWith(field, ":count")) return Column::kHistogramCount;
  return Column::kHistogramBuckets;
}

// A field of a block with columns. In rows the fields are named r, c, m, d, t and h by their type.
std::optional<Column> ColumnOfField(uint8_t wire_type, const std::string& field) {
  if (BeginsWith(field, "hist:")) {
    return ColumnOfHistogram(field);
  }
  if (wire_type == kWireTimer || BeginsWith(field, "t.")) {
    if (EndsWith(field, "sum")) return Column::kTimerSum;
    if (EndsWith(field, "counter")) return Column::kTimerCount;
    return std::nullopt;
  }
  if (wire_type == kWireDeltaCounter || BeginsWith(field, "d.")) {
    if (EndsWith(field, "counter")) return Column::kDeltaTotal;
    return EndsWith(field, "rate") ? Column::kDeltaRate : Column::kDelta;
  }
  if (field == "r") return Column::kRate;
  if (field == "c") return Column::kCounter;
  if (field == "m") return Column::kMeter;
  if (field == "m.rate") return Column::kMeterRate;
  return std::nullopt;
}

std::string TagOf(const agent::Series& series, const char* key) {
  for (const agent::Tag& tag : series.tags) {
    if (tag.key == key) {
      return tag.value;
    }
  }
  return {};
}

}  // namespace

std::string SeriesKey(const std::string& tenant, const std::string& metric,
                      const std::string& generation, const std::string& worker) {
  return tenant + "/" + metric + "/" + generation + "/" + worker;
}

Reading ReadSeries(const agent::Packet& packet, const agent::Block& block,
                   const agent::Series& series) {
  const size_t end = block.name.find('.', block.name.find('.') + 1);
  Reading reading;
  reading.key =
      SeriesKey(packet.tenant, block.name.substr(0, end), TagOf(series, "g"), TagOf(series, "w"));
  for (size_t i = 0; i < series.values.size(); ++i) {
    const std::optional<Column> column =
        block.fields.empty() ? ColumnOfNumber(block.wire_type, block.name)
                             : ColumnOfField(block.wire_type, block.FieldName(series, i));
    if (column.has_value()) {
      reading.present.set(IndexOf(*column));
      reading.values.at(IndexOf(*column)) += series.values[i];
    }
  }
  return reading;
}

}  // namespace tidegate::stress
