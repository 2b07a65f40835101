#include "util/word_hash.h"

#include <sys/random.h>

#include <ctime>

namespace METRICS {
namespace {

HashSeed MakeSeed() {
  HashSeed seed{};
  constexpr auto kBytes = static_cast<ssize_t>(sizeof(seed));
  if (::getrandom(&seed, sizeof(seed), GRND_NONBLOCK) != kBytes) {
    // An early boot, or no such call.
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const auto address = reinterpret_cast<uintptr_t>(&seed);  // random too
    seed.start = FoldedProduct(address ^ kHashFactor, static_cast<uint64_t>(now.tv_nsec) ^ address);
    seed.whole =
        FoldedProduct(seed.start ^ kHashFactor, static_cast<uint64_t>(now.tv_sec) + address);
    seed.last = FoldedProduct(seed.whole ^ kHashFactor, seed.start);
  }
  return seed;
}

}  // namespace

// Before other objects with constructors, which may emit.
__attribute__((init_priority(101))) const HashSeed g_hash_seed = MakeSeed();

}  // namespace METRICS
