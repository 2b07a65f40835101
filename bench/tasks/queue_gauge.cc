// The length of a queue that several threads use.

#include <prometheus/gauge.h>

#include "task.h"
#include "tasks/job_queue.h"

void RunTask(prometheus::Registry& registry) {
  JobQueue queue;
  auto& family = prometheus::BuildGauge().Name("queue_length").Help("jobs").Register(registry);
  auto& length = family.Add({});
  for (int job = 0; job < 5; ++job) {
    queue.Push(job);
    length.Set(queue.Length());
  }
  queue.Pop();
  length.Set(queue.Length());
}
