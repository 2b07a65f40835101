#include "testing/points.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>

#include "agent/kinds.h"

namespace tidegate::test {
namespace {

using testing::Point;
using testing::Tags;

bool Equal(const MetricTag& a, const MetricTag& b) { return a.key == b.key && a.value == b.value; }

std::string KindName(uint8_t wire_type) {
  return wire_type == static_cast<uint8_t>(agent::Kind::kRow) ? "row"
                                                              : agent::WireTypeName(wire_type);
}

// "hist:b-0.500000" is "0.5", and in a row "hist:size:b-0.500000" is "size.0.5".
std::string ShortName(const std::string& column) {
  constexpr std::string_view kBucket = "b-";
  if (column.compare(0, agent::kHistogramMark.size(), agent::kHistogramMark) != 0) return column;
  const size_t end = column.rfind(':');
  std::ostringstream name;
  if (end >= agent::kHistogramMark.size()) {
    name << column.substr(agent::kHistogramMark.size(), end - agent::kHistogramMark.size()) << '.';
  }
  const std::string number = column.substr(end + 1);
  if (number.compare(0, kBucket.size(), kBucket) == 0) {
    name << std::strtod(number.c_str() + kBucket.size(), nullptr);
  } else {
    name << number;
  }
  return name.str();
}

void Print(std::ostream& out, const std::string& name, const std::vector<MetricTag>& tags) {
  out << name << '{';
  for (size_t i = 0; i < tags.size(); ++i) {
    out << (i > 0 ? "," : "") << tags[i].key << '=' << tags[i].value;
  }
  out << '}';
}

bool HasTags(const Point& point, const std::vector<MetricTag>& tags) {
  return std::all_of(tags.begin(), tags.end(), [&](const MetricTag& tag) {
    return std::any_of(point.tags.begin(), point.tags.end(),
                       [&](const MetricTag& own) { return Equal(own, tag); });
  });
}

// Calls `take` for the number of each point that is asked for. A timer and a meter have points of
// their own for their parts.
template <class Take>
void ForEach(const std::vector<Point>& points, std::string_view name, const Tags& tags,
             std::string_view field, Take take) {
  const std::string part = std::string(name) + '.' + std::string(field);
  for (const Point& point : points) {
    const bool is_part = !field.empty() && point.name == part;
    if ((!is_part && point.name != name) || !HasTags(point, tags.List())) continue;
    const bool is_total = field.empty() && point.kind == "delta_counter";
    const auto found = std::find(point.fields.begin(), point.fields.end(),
                                 is_part || field.empty() ? std::string_view() : field);
    if (found != point.fields.end() || is_total) {
      take(point, is_total ? point.values[0]
                           : point.values[static_cast<size_t>(found - point.fields.begin())]);
    }
  }
}

// The newest number of a series.
struct Newest {
  const Point* point;
  double value;
};

std::invalid_argument Ambiguous(const Newest& one, const Newest& other) {
  std::ostringstream text;
  text << "Value: several series have these tags: ";
  Print(text, one.point->name, one.point->tags);
  text << " and ";
  Print(text, other.point->name, other.point->tags);
  return std::invalid_argument(text.str());
}

bool IsTimerColumn(std::string_view name) {
  return std::any_of(std::begin(agent::kTimerColumns), std::end(agent::kTimerColumns),
                     [name](const agent::ColumnRow& column) { return column.name == name; });
}

// Throws if there are points, but none with the field.
void CheckField(const std::vector<Point>& points, std::string_view name, const Tags& tags,
                std::string_view field) {
  std::set<std::string> fields;
  const std::string parts = std::string(name) + '.';
  for (const Point& point : points) {
    if (!HasTags(point, tags.List())) continue;
    if (point.name == name) fields.insert(point.fields.begin(), point.fields.end());
    if (point.name.compare(0, parts.size(), parts) == 0 &&
        IsTimerColumn(std::string_view(point.name).substr(parts.size()))) {
      fields.insert(point.name.substr(parts.size()));
    }
  }
  if (fields.empty()) return;
  std::ostringstream text;
  text << "Value: " << name << " has no field \"" << field << "\", but";
  for (const std::string& own : fields) text << " \"" << own << '"';
  throw std::invalid_argument(text.str());
}

}  // namespace

void AppendPoints(const agent::Packet& packet, std::vector<Point>& points) {
  for (const agent::Block& block : packet.blocks) {
    for (const agent::Series& series : block.series) {
      Point point;
      point.tenant = packet.tenant;
      point.name = block.name;
      point.kind = KindName(block.wire_type);
      point.time = block.timestamp;
      for (const agent::Tag& tag : series.tags) point.tags.emplace_back(tag.key, tag.value);
      std::stable_sort(point.tags.begin(), point.tags.end());
      point.values = series.values;
      for (size_t i = 0; i < series.values.size(); ++i) {
        point.fields.push_back(ShortName(block.FieldName(series, i)));
      }
      points.push_back(std::move(point));
    }
  }
}

std::vector<double> ValuesOf(const std::vector<Point>& points, std::string_view name,
                             const Tags& tags, std::string_view field) {
  // Totals report the interval before as well, and maybe later.
  std::multimap<int64_t, double> by_time;
  ForEach(points, name, tags, field,
          [&](const Point& point, double value) { by_time.emplace(point.time, value); });
  std::vector<double> values;
  for (const auto& [time, value] : by_time) values.push_back(value);
  return values;
}

std::optional<double> ValueOf(const std::vector<Point>& points, std::string_view name,
                              const Tags& tags, std::string_view field) {
  std::vector<Newest> all;
  ForEach(points, name, tags, field, [&](const Point& point, double value) {
    const auto known = std::find_if(all.begin(), all.end(), [&](const Newest& newest) {
      return std::equal(point.tags.begin(), point.tags.end(), newest.point->tags.begin(),
                        newest.point->tags.end(), &Equal);
    });
    if (known == all.end()) {
      all.push_back({&point, value});
    } else if (point.time >= known->point->time) {  // totals add the one of the interval before
      *known = {&point, value};
    }
  });
  if (all.empty()) {
    CheckField(points, name, tags, field);
    return std::nullopt;
  }
  if (all.size() == 1) return all[0].value;
  const auto exact = std::find_if(all.begin(), all.end(), [&](const Newest& newest) {
    return newest.point->tags.size() == tags.List().size();
  });
  if (exact == all.end()) throw Ambiguous(all[0], all[1]);
  return exact->value;
}

}  // namespace tidegate::test

namespace tidegate::testing {

std::ostream& operator<<(std::ostream& out, const Point& point) {
  test::Print(out, point.name, point.tags);
  out << ' ' << point.kind;
  for (size_t i = 0; i < point.values.size(); ++i) {
    out << ' ' << point.fields[i] << (point.fields[i].empty() ? "" : "=") << point.values[i];
  }
  return out;
}

}  // namespace tidegate::testing
