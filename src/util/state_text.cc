#include "util/state_text.h"

namespace METRICS {

const char* StateText(MetricState state) {
  switch (state) {
    case MetricState::INIT:
      return "being made";
    case MetricState::READY:
      return "in service";
    case MetricState::BLOCKED:
      return "blocked";
    case MetricState::SHUTDOWN:
      return "shut down";
  }
  return "unknown";
}

}  // namespace METRICS
