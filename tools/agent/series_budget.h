#pragma once

#include <cstddef>

namespace tidegate::agent {

// The memory that the series take and may take, in the table and on the page, and the work that one
// packet makes. Both limits grow with the number of series that may be kept.
//
// Not thread-safe.
class SeriesBudget {
 public:
  // The table, and the page with every escape, for each of `max_series`. The series that reaches
  // these limits may exceed them: by kMaxSeriesPageBytes on the page, and by some four times as
  // much in the table.
  static constexpr size_t kBytesPerSeries = 2048;
  static constexpr size_t kPageBytesPerSeries = 512;

  // Of one series with the heads of its families. A packet can make this grow as a product of its
  // names, columns and tags, far beyond any series that the library's limits allow.
  static constexpr size_t kMaxSeriesPageBytes = size_t{16} << 20;

  // Bytes of keys, names and cells that one packet makes the table go through. Each record repeats
  // the tenant, so more takes a packet that is made to be expensive.
  static constexpr size_t kMaxPacketWork = size_t{64} << 20;

  explicit SeriesBudget(size_t max_series) : max_series_(max_series) {}

  size_t max_series() const { return max_series_; }
  bool IsFull() const {
    return bytes_ >= max_series_ * kBytesPerSeries ||
           page_bytes_ >= max_series_ * kPageBytesPerSeries;
  }

  void Take(size_t bytes, size_t page_bytes) {
    bytes_ += bytes;
    page_bytes_ += page_bytes;
  }
  void GiveBack(size_t bytes, size_t page_bytes) {
    bytes_ -= bytes;
    page_bytes_ -= page_bytes;
  }
  size_t bytes() const { return bytes_; }
  size_t page_bytes() const { return page_bytes_; }  // at most
  // For those who count for themselves.
  size_t* counted_bytes() { return &bytes_; }

  void BeginPacket() { work_ = 0; }
  void AddWork(size_t bytes) { work_ += bytes; }
  bool IsTooMuchWork() const { return work_ > kMaxPacketWork; }

 private:
  const size_t max_series_;
  size_t bytes_ = 0;
  size_t page_bytes_ = 0;
  size_t work_ = 0;
};

}  // namespace tidegate::agent
