// A server that forks its workers, each of which counts what it serves.

#include <prometheus/counter.h>
#include <prometheus/exposer.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>

#include "task.h"

// The page of the parent has a thread, which a child has not: each child gets a page of its own.
void RunTask(prometheus::Registry& /*registry*/) {
  for (int i = 0; i < 3; ++i) {
    if (fork() != 0) continue;
    prometheus::Exposer exposer("127.0.0.1:0");  // a port that the scraper has to be told
    const auto registry = std::make_shared<prometheus::Registry>();
    exposer.RegisterCollectable(registry);
    auto& family =
        prometheus::BuildCounter().Name("served_total").Help("requests").Register(*registry);
    auto& served = family.Add({});
    for (int request = 0; request < 100; ++request) served.Increment();
    _exit(0);
  }
  while (wait(nullptr) > 0) {
  }
}
