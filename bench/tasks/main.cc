// Runs the task that it is linked with, and prints what a scrape would see.

#include <prometheus/exposer.h>
#include <prometheus/text_serializer.h>

#include <cstdio>
#include <memory>

#include "task.h"

int main() {
  // begin: what a process needs once
  prometheus::Exposer exposer("127.0.0.1:0");
  const auto registry = std::make_shared<prometheus::Registry>();
  exposer.RegisterCollectable(registry);
  // end
  RunTask(*registry);
  std::fputs(prometheus::TextSerializer().Serialize(registry->Collect()).c_str(), stdout);
}
