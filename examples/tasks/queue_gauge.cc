// The length of a queue that several threads use.

#include "job_queue.h"
#include "task.h"

void RunTask(tidegate::Metrics& metrics) {
  JobQueue queue;
  const auto length = metrics.Gauge("queue.length");
  for (int job = 0; job < 5; ++job) {
    queue.Push(job);
    length.Set(queue.Length());
  }
  queue.Pop();
  length.Set(queue.Length());
}
