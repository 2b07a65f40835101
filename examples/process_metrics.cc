// process_metrics [SOCKET_PATH] [SECONDS]: the numbers of the process itself, and of its memory.

#include <cstdlib>
#include <thread>

#include "tidegate/metrics.h"

int main(int argc, char** argv) {
  tidegate::Options options{"monitored"};
  if (argc > 1) options.socket_path = argv[1];
  options.interval = std::chrono::seconds(1);
  tidegate::Metrics metrics(options);
  metrics.AddProcessMetrics();
  metrics.AddAllocatorMetrics();
  std::this_thread::sleep_for(std::chrono::seconds(argc > 2 ? std::atoi(argv[2]) : 2));
}
