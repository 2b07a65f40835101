#include "agent/shown_settings.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "agent/forward_url.h"

namespace tidegate::agent {
namespace {

constexpr std::string_view kAddresses[] = {"forward", "otlp", "remote-write"};
constexpr std::string_view kHarmless[] = {"config",
                                          "drain",
                                          "forward-batch-points",
                                          "forward-catch-up",
                                          "forward-interval",
                                          "forward-queue-bytes",
                                          "forward-queue-points",
                                          "forward-timeout",
                                          "history",
                                          "history-bytes",
                                          "http",
                                          "label-pid",
                                          "max-ahead",
                                          "max-series",
                                          "merge",
                                          "merge-delay",
                                          "merge-gauge",
                                          "no-spread",
                                          "print",
                                          "process-label",
                                          "queue-bytes",
                                          "quiet",
                                          "socket",
                                          "socket-mode",
                                          "spool",
                                          "spool-bytes",
                                          "spread",
                                          "take-over",
                                          "timestamps",
                                          "ttl"};

template <size_t size>
bool Has(const std::string_view (&names)[size], std::string_view name) {
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

}  // namespace

std::map<std::string, std::string> ShownSettings(const std::map<std::string, std::string>& texts) {
  std::map<std::string, std::string> shown;
  for (const auto& [name, text] : texts) {
    if (text.empty()) continue;
    if (Has(kAddresses, name)) {
      ForwardUrl url;
      std::string error;
      shown[name] = ParseForwardUrl(text, &url, &error) ? url.shown : WithoutSecrets(text);
    } else {
      shown[name] = Has(kHarmless, name) ? text : "(set)";
    }
  }
  return shown;
}

}  // namespace tidegate::agent
