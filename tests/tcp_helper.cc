// A process for a TCP sender that does not come to its end. Argument 1 is the port on the loopback.
// Writes the retry count of the first 300 look-ups to standard output, a byte each.

#include <unistd.h>

#include "support/environment.h"

struct Discovery final : METRICS::DummyServiceDiscovery {
  explicit Discovery(int to) : DummyServiceDiscovery("helper"), port(to) {}
  bool GetOne(tidegate::Endpoint& endpoint, signed char& retry_count) override {
    endpoint = {"127.0.0.1", port};
    return ++calls > 300 || ::write(STDOUT_FILENO, &retry_count, 1) == 1;
  }
  const int port;
  int calls = 0;
};

int main(int /*argc*/, char** argv) {
  ::alarm(20);  // in case that the test dies
  tidegate::test::TestClient client;
  client->configer_->discovery_ = std::make_unique<Discovery>(std::stoi(argv[1]));
  METRICS::MetricRegistryCfg cfg;
  cfg.tenant = "t1";
  cfg.sender_type = METRICS::MetricSenderType::kSenderTcp;
  client->CreateMetric(cfg, {"m", {}, {}, {}}).metric->WithTags({})->Emit({METRICS::Store(1)});
  client->FlushAndExit();
}
