#include "agent/remote_write_body.h"

#include <snappy.h>

#include <cstddef>
#include <protozero/exception.hpp>
#include <protozero/pbf_reader.hpp>

#include "agent/remote_write_fields.h"

namespace tidegate::agent {
namespace {

// More than any batch; a body says itself how long it becomes.
constexpr size_t kMaxRequestBytes = size_t{1} << 30;

std::optional<std::string> Unpack(const std::string& body) {
  size_t size = 0;
  std::string request;
  if (!snappy::GetUncompressedLength(body.data(), body.size(), &size) || size > kMaxRequestBytes ||
      !snappy::Uncompress(body.data(), body.size(), &request)) {
    return std::nullopt;
  }
  return request;
}

uint64_t CountSeries(std::string_view request) {
  protozero::pbf_reader fields(request.data(), request.size());
  uint64_t count = 0;
  while (fields.next()) {
    if (fields.tag() == remote_write::kTimeSeries) ++count;
    fields.skip();
  }
  return count;
}

// Where the first `count` TimeSeries end.
size_t EndOfSeries(std::string_view request, uint64_t count) {
  protozero::pbf_reader fields(request.data(), request.size());
  while (count > 0 && fields.next()) {
    if (fields.tag() == remote_write::kTimeSeries) --count;
    fields.skip();
  }
  return request.size() - fields.length();
}

std::string LabelsOf(protozero::pbf_reader series) {
  std::string name;
  std::string labels;
  while (series.next(remote_write::kLabel)) {
    protozero::pbf_reader label = series.get_message();
    std::string key;
    std::string value;
    while (label.next()) {
      if (label.tag() == remote_write::kLabelName) {
        key = label.get_string();
      } else if (label.tag() == remote_write::kLabelValue) {
        value = label.get_string();
      } else {
        label.skip();
      }
    }
    if (key == "__name__") {
      name = value;
    } else {
      labels.append(labels.empty() ? "" : ",").append(key).append("=").append(value);
    }
  }
  return name + '{' + labels + '}';
}

}  // namespace

std::string PackRemoteWrite(std::string_view write_request) {
  std::string body;
  snappy::Compress(write_request.data(), write_request.size(), &body);
  body.shrink_to_fit();  // it may wait for long
  return body;
}

std::optional<std::pair<RemoteWritePart, RemoteWritePart>> SplitRemoteWrite(
    const std::string& body) {
  const std::optional<std::string> request = Unpack(body);
  if (!request) return std::nullopt;
  try {
    const uint64_t series = CountSeries(*request);
    if (series < 2) return std::nullopt;
    const std::string_view all = *request;
    const size_t end = EndOfSeries(all, series / 2);
    return {{{PackRemoteWrite(all.substr(0, end)), series / 2},
             {PackRemoteWrite(all.substr(end)), series - series / 2}}};
  } catch (const protozero::exception&) {
    return std::nullopt;
  }
}

std::string FirstSeriesOf(const std::string& body) {
  const std::optional<std::string> request = Unpack(body);
  if (!request) return {};
  try {
    protozero::pbf_reader fields(*request);
    return fields.next(remote_write::kTimeSeries) ? LabelsOf(fields.get_message()) : "";
  } catch (const protozero::exception&) {
    return {};
  }
}

}  // namespace tidegate::agent
