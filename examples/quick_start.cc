// quick_start [SOCKET_PATH]: a counter and a timer.

#include "tidegate/metrics.h"

int main(int argc, char** argv) {
  tidegate::Options options{"shop"};
  if (argc > 1) options.socket_path = argv[1];  // otherwise the agent's default path
  tidegate::Metrics metrics(options);

  const auto requests = metrics.Counter("requests", {"method", "status"});
  const auto latency = metrics.Timer("latency");
  for (int i = 1; i <= 100; ++i) {
    requests.Add(1, {{"method", "get"}, {"status", 200}});
    latency.Observe(std::chrono::microseconds(i));
  }
}  // sends what is in memory
