// A server that forks its workers, each of which counts what it serves.

#include <sys/wait.h>
#include <unistd.h>

#include "task.h"

void RunTask(tidegate::Metrics& metrics) {
  const tidegate::Counter served = metrics.Counter("served");
  for (int i = 0; i < 3; ++i) {
    if (fork() != 0) continue;
    metrics.AtFork();
    metrics.Init();
    for (int request = 0; request < 100; ++request) served.Add(1);
    metrics.Stop();
    _exit(0);
  }
  while (wait(nullptr) > 0) {
  }
}
