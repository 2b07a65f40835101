// Workers that count their jobs; what they count on is looked up once.

#include <thread>
#include <vector>

#include "task.h"

void RunTask(tidegate::Metrics& metrics) {
  const auto mails = metrics.Counter("jobs", {"kind"}).With({{"kind", "mail"}});
  std::vector<std::thread> workers(4);
  for (std::thread& worker : workers) {
    worker = std::thread([&mails] {
      for (int job = 0; job < 100; ++job) mails.Add(1);
    });
  }
  for (std::thread& worker : workers) worker.join();
}
