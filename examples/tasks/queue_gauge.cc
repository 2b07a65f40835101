// The length of a queue that several threads use.

#include "job_queue.h"
#include "task.h"

void RunTask(tidegate::Metrics& metrics) {
  JobQueue queue;
  const auto length = metrics.Sample("queue.length", [&queue] { return queue.Length(); });
  for (int job = 0; job < 5; ++job) queue.Push(job);
  queue.Pop();
  metrics.Stop();  // asks once more; the queue of a service lives for many intervals
}
