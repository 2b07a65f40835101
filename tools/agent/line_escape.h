#pragma once

#include <string>
#include <string_view>

namespace tidegate::agent {

// Where in a line of the InfluxDB line protocol a text stands. Comma, space and, but for the
// measurement, the equals sign are written behind a backslash.
enum class LinePart { kMeasurement, kTag, kField };

// Appends `text` as it stands in a line. What no escape carries to every receiver becomes `_`:
// control characters, bytes that are not UTF-8, a backslash that would be taken for an escape, a
// quote in a field key, a # at the front of a measurement, and an empty text. Whether there was any
// of that: without it no two texts become one.
bool AppendEscaped(LinePart part, std::string_view text, std::string* out);

// Whether AppendEscaped appends `text` as it is, in every part. False for some others as well.
bool IsPlainText(std::string_view text);

}  // namespace tidegate::agent
