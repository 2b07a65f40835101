#include "metrics/service_options.h"

#include <sys/un.h>

#include <algorithm>

#include "util/metric_clock_util.h"
#include "util/metric_string_util.h"
#include "util/metric_tag_util.h"

namespace METRICS {
namespace {

constexpr size_t kMaxPath = sizeof(sockaddr_un::sun_path) - 1;
constexpr size_t kMaxTags = 255;

std::string IllegalName(const char* what, const std::string& name) {
  return std::string(what) + " [" + name +
         "] is empty, too long, or has other characters than letters, digits and %-./:_";
}

std::string ReasonAgainstTags(const std::vector<tidegate::MetricTag>& tags) {
  if (tags.size() > kMaxTags) {
    return "more than 255 tags";
  }
  const auto bad = std::find_if_not(tags.begin(), tags.end(), IsValidTag);
  if (bad != tags.end()) {
    return "tag [" + bad->key + "] = [" + bad->value + "] has an illegal key or value";
  }
  return CheckDuplicatedString(KeysOf(tags)) ? "" : "a tag is there twice";
}

}  // namespace

std::string ReasonAgainst(const tidegate::Options& options) {
  if (options.service.empty()) {
    return "the service has no name";
  }
  const std::string& prefix = options.prefix.empty() ? options.service : options.prefix;
  if (!IsValidKey(prefix)) {
    return IllegalName("the prefix", prefix);
  }
  if (!IsValidKey(options.tenant)) {
    return IllegalName("the tenant", options.tenant);
  }
  const auto interval = options.interval.count();
  if (interval < 1 || interval > 60 || !IsValidFlushInterval(static_cast<int>(interval))) {
    return "the interval is " + std::to_string(interval) + " s, not 1, 5, 10, 15, 30 or 60";
  }
  const std::string& path = options.socket_path;
  if (path.empty() || path.size() > kMaxPath) {
    return "the path of the socket [" + path + "] has " + std::to_string(path.size()) +
           " bytes, not 1 to " + std::to_string(kMaxPath);
  }
  if (options.max_series == 0) {
    return "max_series is 0";
  }
  return ReasonAgainstTags(options.tags);
}

}  // namespace METRICS
