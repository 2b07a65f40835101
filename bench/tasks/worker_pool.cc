// Workers that count their jobs; what they count on is looked up once.

#include <prometheus/counter.h>

#include <thread>
#include <vector>

#include "task.h"

void RunTask(prometheus::Registry& registry) {
  auto& jobs = prometheus::BuildCounter().Name("jobs_total").Help("jobs").Register(registry);
  auto& mails = jobs.Add({{"kind", "mail"}});
  std::vector<std::thread> workers(4);
  for (std::thread& worker : workers) {
    worker = std::thread([&mails] {
      for (int job = 0; job < 100; ++job) mails.Increment();
    });
  }
  for (std::thread& worker : workers) worker.join();
}
