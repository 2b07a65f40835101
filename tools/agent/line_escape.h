#pragma once

#include <string>
#include <string_view>

namespace tidegate::agent {

// Where in a line of the InfluxDB line protocol a text stands. Comma, space and, but for the
// measurement, the equals sign are written after a backslash.
enum class LinePart { kMeasurement, kTag, kField };

// Appends `text` as it stands in a line. For some bytes there is no escape that every receiver
// understands. They become \x and two digits (utf8.h): control characters, bytes that are not
// UTF-8, a quote in a field key, and a # at the front of a measurement. So does a backslash at the
// end, before an x, or before anything but plain ASCII. An empty text becomes \x. Two different
// texts stay different.
void AppendEscaped(LinePart part, std::string_view text, std::string* out);

}  // namespace tidegate::agent
