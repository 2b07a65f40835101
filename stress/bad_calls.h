#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "metrics/metric_client.h"
#include "support/agent_socket.h"
#include "support/environment.h"

namespace tidegate::stress {

using METRICS::ReturnCode;
using Lines = std::vector<std::string>;

// All traces that a call could leave, by kind: how many there are, or how many more.
using State = std::map<std::string, long>;

// One bad call: its answer, its lines at the level of warnings, and its traces.
struct Bad {
  std::string what;
  std::function<ReturnCode()> call;
  ReturnCode code;
  Lines lines;
  State left = {};
};

// The line that prints the text of `code`.
std::string ErrorOf(ReturnCode code);

// A refusal that prints the text of its code, and leaves nothing.
Bad Refused(std::string what, ReturnCode code, std::function<ReturnCode()> call);

// A registry with the flush interval 1.
METRICS::MetricRegistryCfg RegistryOf(std::string tenant, std::string prefix);
// A metric by its faults.
METRICS::MetricInstanceCfg Described(std::string name, std::vector<std::string> tag_names = {},
                                     std::vector<MetricTag> const_tags = {},
                                     METRICS::HistoUtilBase* histo = nullptr,
                                     std::vector<METRICS::MetricFieldCfg> fields = {});

// A client with a metric of each kind, on which each bad call is made.
class World {
 public:
  // `quota` is that of series.
  explicit World(const test::AgentSocket& agent, uint64_t quota = 1000);

  METRICS::MetricClient& client() { return *client_; }
  // The calls. `round` tells one round from the other where a call leaves something.
  std::vector<Bad> Registries();
  std::vector<Bad> Names();
  std::vector<Bad> Definitions();
  std::vector<Bad> Leftovers(int round);
  std::vector<Bad> Emissions(int round);
  std::vector<Bad> Unknown();

 private:
  // The code of a call that has to give null when it refuses.
  ReturnCode Create(METRICS::MetricRegistryCfg cfg);
  ReturnCode Create(METRICS::MetricRegistry* registry, const METRICS::MetricInstanceCfg& cfg);
  ReturnCode CreateBoth(METRICS::MetricRegistryCfg registry, METRICS::MetricInstanceCfg metric);

  test::TestClient client_;
  METRICS::MetricRegistry* registry_ = nullptr;
  METRICS::MetricRegistry* blocked_ = nullptr;
  METRICS::Metric* suffixed_ = nullptr;
  METRICS::Metric* row_ = nullptr;
  METRICS::Metric* compatible_ = nullptr;
  METRICS::Metric* blocked_metric_ = nullptr;
};

}  // namespace tidegate::stress
