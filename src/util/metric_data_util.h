#pragma once

#include <atomic>
#include <string>

namespace METRICS {

/// Atomically adds `delta` to `target`, by compare-exchange. Gives up the processor after every
/// fourth failed exchange in a row, never the update.
void FetchAddD(std::atomic<double>& target, double delta);

/// Atomically subtracts `delta` from `target`, as `FetchAddD`.
void FetchSubD(std::atomic<double>& target, double delta);

/// Reads `counter` and subtracts exactly what was read, so that no increment gets lost in between.
unsigned long GetStatValue(std::atomic<unsigned long>& counter);

/// An atomic that can be stored in a growable vector: zero when made, copied by the value that is
/// read at that moment.
template <class T>
struct AtomicWrapper {
  AtomicWrapper() = default;
  AtomicWrapper(const AtomicWrapper& other) : value(other.value.load()) {}
  AtomicWrapper& operator=(const AtomicWrapper& other) {
    value.store(other.value.load());
    return *this;
  }
  ~AtomicWrapper() = default;

  std::atomic<T> value{};
};

/// Sorts ascending, with NaNs after the numbers: the sort itself never compares one.
void SortNumbersFirst(double* first, double* last);

/// `data` as a zlib stream (header and Adler-32), compressed at `level` (0 to 9, -1 for zlib's
/// default). Needs 32 KiB of stack. Throws `std::runtime_error` when zlib fails.
std::string compress_string(const std::string& data, int level);

/// The content of the zlib stream `data`. Throws `std::runtime_error` when it is none, or cut.
std::string decompress_string(const std::string& data);

}  // namespace METRICS
