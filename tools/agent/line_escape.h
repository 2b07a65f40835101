#pragma once

#include <string>
#include <string_view>

namespace tidegate::agent {

// Where in a line of the InfluxDB line protocol a text stands. Comma, space and, but for the
// measurement, the equals sign are written after a backslash.
enum class LinePart { kMeasurement, kTag, kField };

// Appends `text` as it stands in a line. What no escape carries to every receiver becomes \x and
// two digits (utf8.h): control characters, bytes that are not UTF-8, a quote in a field key, a # at
// the front of a measurement, and a backslash at the end, or in front of an x or of anything but
// plain ASCII. An empty text becomes \x. No two texts become one.
void AppendEscaped(LinePart part, std::string_view text, std::string* out);

}  // namespace tidegate::agent
