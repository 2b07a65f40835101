#include "agent/heap_trimmer.h"

#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace tidegate::agent {
namespace {

// 0 if the kernel does not tell.
size_t ResidentBytes() {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen("/proc/self/statm", "re"),
                                                   std::fclose);
  size_t pages = 0;
  if (file == nullptr || std::fscanf(file.get(), "%*u %zu", &pages) != 1) return 0;
  return pages * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

size_t BytesBeside(size_t used) {
  const size_t resident = ResidentBytes();
  return resident - std::min(resident, used);
}

}  // namespace

HeapTrimmer::HeapTrimmer() : least_(BytesBeside(0)) {
  mallopt(M_ARENA_MAX, 1);  // a trim does not reach the end of any arena but the first
}

void HeapTrimmer::Look(size_t used) {
  if (busy_) return;
  const size_t unused = BytesBeside(used);
  least_ = std::min(least_, unused);
  const bool little = unused < least_ + kLeastBytes;
  if (little || unused >= at_trim_ + kLeastBytes) pause_ = kPause;
  const Clock::time_point now = Clock::now();
  if (little || now - last_ < pause_) return;
  Join();
  busy_ = true;
  try {
    thread_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "trimmer");
      malloc_trim(0);
      busy_ = false;
    });
  } catch (...) {
    busy_ = false;
    throw;
  }
  at_trim_ = unused;
  last_ = now;
  pause_ = std::min(2 * pause_, kLongestPause);
}

}  // namespace tidegate::agent
