#include "agent/remote_write_body.h"

#include <snappy.h>

#include <cstddef>
#include <map>
#include <protozero/exception.hpp>
#include <protozero/pbf_reader.hpp>

#include "agent/remote_write_fields.h"

namespace tidegate::agent {
namespace {

// More than any batch; a body says itself how long it becomes.
constexpr size_t kMaxRequestBytes = size_t{1} << 30;

constexpr std::string_view kName = "__name__";

using Labels = std::map<std::string, std::string>;

// The requests are the agent's own, but those of a spool have been on a disk.
std::optional<std::string> Unpack(std::string_view body) {
  size_t size = 0;
  std::string request;
  if (!snappy::GetUncompressedLength(body.data(), body.size(), &size) || size > kMaxRequestBytes ||
      !snappy::Uncompress(body.data(), body.size(), &request)) {
    return std::nullopt;
  }
  return request;
}

Labels LabelsOf(protozero::pbf_reader series) {
  Labels labels;
  while (series.next(remote_write::kLabel)) {
    protozero::pbf_reader label = series.get_message();
    std::string name;
    std::string value;
    while (label.next()) {
      if (label.tag() == remote_write::kLabelName) {
        name = label.get_string();
      } else if (label.tag() == remote_write::kLabelValue) {
        value = label.get_string();
      } else {
        label.skip();
      }
    }
    labels[name] = value;
  }
  return labels;
}

bool IsOwnNumber(protozero::pbf_reader series) {
  constexpr std::string_view kPrefix = "tidegate_agent_";
  return LabelsOf(series)[std::string(kName)].compare(0, kPrefix.size(), kPrefix) == 0;
}

struct Content {
  uint64_t series = 0;
  uint64_t points = 0;
  size_t bytes = 0;
};

// Of the first `most` TimeSeries of a request, with what is before the last of them.
Content Count(std::string_view request, uint64_t most) {
  protozero::pbf_reader fields(request.data(), request.size());
  Content content;
  while (content.series < most && fields.next()) {
    if (fields.tag() != remote_write::kTimeSeries) {
      fields.skip();
      continue;
    }
    ++content.series;
    if (!IsOwnNumber(fields.get_message())) ++content.points;
  }
  content.bytes = request.size() - fields.length();
  return content;
}

}  // namespace

std::string PackRemoteWrite(std::string_view write_request) {
  std::string body;
  snappy::Compress(write_request.data(), write_request.size(), &body);
  body.shrink_to_fit();  // it may wait for long
  return body;
}

std::optional<std::pair<RemoteWritePart, RemoteWritePart>> SplitRemoteWrite(std::string_view body) {
  const std::optional<std::string> request = Unpack(body);
  if (!request) return std::nullopt;
  try {
    const std::string_view all = *request;
    const Content whole = Count(all, UINT64_MAX);
    if (whole.series < 2) return std::nullopt;
    const Content first = Count(all, whole.series / 2);
    return {{{PackRemoteWrite(all.substr(0, first.bytes)), first.points},
             {PackRemoteWrite(all.substr(first.bytes)), whole.points - first.points}}};
  } catch (const protozero::exception&) {
    return std::nullopt;
  }
}

std::string OnlySeriesOf(std::string_view body) {
  const std::optional<std::string> request = Unpack(body);
  if (!request) return {};
  try {
    if (Count(*request, 2).series != 1) return {};
    protozero::pbf_reader fields(*request);
    fields.next(remote_write::kTimeSeries);
    Labels labels = LabelsOf(fields.get_message());
    std::string shown = labels[std::string(kName)] + '{';
    labels.erase(std::string(kName));
    for (const auto& [name, value] : labels) {
      shown.append(shown.back() == '{' ? "" : ",").append(name).append("=").append(value);
    }
    return shown + '}';
  } catch (const protozero::exception&) {
    return {};
  }
}

}  // namespace tidegate::agent
