#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "util/spare_array.h"

namespace METRICS {

/// A list of shared values, mostly in the order in which they were added: an index stays with its
/// value, and one that was removed leaves a hole that a later one fills. Held in chunks, which are
/// given back when they are empty, so that no addition moves more than the list of chunks.
///
/// Not thread-safe: its owner guards it.
template <class V>
class ChunkedList {
 public:
  using Entry = std::shared_ptr<V>;
  static constexpr size_t kChunk = 1024;

 private:
  struct Chunk {
    std::unique_ptr<Entry[]> entries;
    uint32_t capacity = 0;
    uint32_t used = 0;
    uint32_t free_from = 0;   ///< no hole is before it
    uint32_t next_roomy = 0;  ///< of those that are not full
  };

 public:
  /// What `MakeRoom` may need.
  struct Room {
    SpareArray<Entry> entries;
    SpareArray<Chunk> chunks;

    void Make() {
      entries.Make();
      chunks.Make();
    }
  };

  ChunkedList() = default;
  ChunkedList(const ChunkedList&) = delete;
  ChunkedList& operator=(const ChunkedList&) = delete;
  void Swap(ChunkedList& other) {
    chunks_.swap(other.chunks_);
    std::swap(chunk_count_, other.chunk_count_);
    std::swap(chunk_capacity_, other.chunk_capacity_);
    std::swap(first_roomy_, other.first_roomy_);
    std::swap(size_, other.size_);
  }

  size_t Size() const { return size_; }
  const Entry& operator[](uint32_t index) const {
    return chunks_[index / kChunk].entries[index % kChunk];
  }
  /// Has the entry of `index` fetched.
  void Fetch(uint32_t index) const { __builtin_prefetch(&(*this)[index]); }

  /// Makes sure that `Add` has room; false, with the list as it was, where `room` has too little.
  bool MakeRoom(Room& room) {
    if (first_roomy_ == kNone && !AppendChunk(room)) {
      return false;
    }
    Chunk& chunk = chunks_[first_roomy_];
    return chunk.used < chunk.capacity || Widen(chunk, room);
  }
  /// Adds `entry` and gives its index. REQUIRES: `MakeRoom` was true.
  uint32_t Add(const Entry& entry) {
    const uint32_t number = first_roomy_;
    Chunk& chunk = chunks_[number];
    assert(chunk.used < chunk.capacity);
    uint32_t i = chunk.free_from;
    while (chunk.entries[i] != nullptr) {
      ++i;
    }
    chunk.entries[i] = entry;
    chunk.free_from = i + 1;
    if (++chunk.used == kChunk) {
      first_roomy_ = chunk.next_roomy;
    }
    ++size_;
    return static_cast<uint32_t>(number * kChunk + i);
  }

  /// What `Remove` takes out, to die without the lock.
  struct Removed {
    Entry entry;
    std::unique_ptr<Entry[]> emptied;
  };
  void Remove(uint32_t index, Removed& removed) {
    const auto number = static_cast<uint32_t>(index / kChunk);
    Chunk& chunk = chunks_[number];
    if (chunk.used-- == kChunk) {
      chunk.next_roomy = std::exchange(first_roomy_, number);
    }
    removed.entry = std::move(chunk.entries[index % kChunk]);
    chunk.free_from = std::min<uint32_t>(chunk.free_from, index % kChunk);
    if (chunk.used == 0) {
      removed.emptied = std::move(chunk.entries);
      chunk.capacity = chunk.free_from = 0;
    }
    --size_;
  }

  size_t ChunkCount() const { return chunk_count_; }
  /// Calls `visit(entry)` for each of a chunk, whose memory has been asked for some steps before.
  template <class Visit>
  void Each(size_t chunk, Visit visit) const {
    constexpr uint32_t kSteps = 16;
    const Chunk& walked = chunks_[chunk];
    for (uint32_t i = 0; i < walked.capacity; ++i) {
      if (i + kSteps < walked.capacity) {
        FetchCounts(walked.entries[i + kSteps].get());
      }
      if (walked.entries[i] != nullptr) {
        visit(walked.entries[i]);
      }
    }
  }
  /// Calls `visit(value)` for all, and lets go of each while it is near. The list is good for
  /// nothing then.
  template <class Visit>
  void DropEach(Visit visit) {
    for (size_t chunk = 0; chunk < chunk_count_; ++chunk) {
      Each(chunk, [&](Entry& entry) {
        visit(*entry);
        entry.reset();
      });
    }
  }

 private:
  static constexpr uint32_t kNone = UINT32_MAX;
  static constexpr uint32_t kFirstEntries = 8;

  /// Of a value that was made with the counts of its owners: they stand before it.
  static void FetchCounts(const V* value) {
    if (value != nullptr) {
      __builtin_prefetch(reinterpret_cast<const char*>(value) - sizeof(long), 1);
    }
  }

  bool AppendChunk(Room& room) {
    if (chunk_count_ == chunk_capacity_) {
      const uint32_t wanted = std::max<uint32_t>(1, 2 * chunk_capacity_);
      if (!room.chunks.Has(wanted)) {
        return false;
      }
      std::unique_ptr<Chunk[]> wider = room.chunks.Exchange(nullptr);
      std::move(chunks_.get(), chunks_.get() + chunk_count_, wider.get());
      chunks_.swap(wider);
      room.chunks.Exchange(std::move(wider));
      chunk_capacity_ = wanted;
    }
    chunks_[chunk_count_].next_roomy = std::exchange(first_roomy_, chunk_count_);
    ++chunk_count_;
    return true;
  }
  /// The first chunk begins small: most lists are short.
  bool Widen(Chunk& chunk, Room& room) {
    const uint32_t wanted =
        &chunk != &chunks_[0] ? kChunk : std::max(kFirstEntries, 2 * chunk.capacity);
    if (!room.entries.Has(wanted)) {
      return false;
    }
    std::unique_ptr<Entry[]> wider = room.entries.Exchange(nullptr);
    std::move(chunk.entries.get(), chunk.entries.get() + chunk.capacity, wider.get());
    chunk.entries.swap(wider);
    room.entries.Exchange(std::move(wider));
    chunk.capacity = wanted;
    return true;
  }

  std::unique_ptr<Chunk[]> chunks_;
  uint32_t chunk_count_ = 0;
  uint32_t chunk_capacity_ = 0;
  uint32_t first_roomy_ = kNone;  ///< of the chunks that are not full
  size_t size_ = 0;
};

}  // namespace METRICS
