#pragma once

#include <cstddef>
#include <functional>

#include "util/concurrent_hashmap.h"

namespace tidegate::test {

/// A value of a `ConcurrentHashmap` that has its key.
struct KeyedNumber {
  int key;
  int number;
};

struct NumberKeys {
  static int Of(const KeyedNumber& value) { return value.key; }
  static bool Same(const KeyedNumber& value, int key) { return value.key == key; }
  static int Copy(const KeyedNumber& value) { return value.key; }
  static void Fetch(const KeyedNumber* /*value*/) {}
  static bool Counts(const KeyedNumber& value) { return value.key >= 0; }
};

/// Spreads over all bits.
struct NumberHash {
  size_t operator()(int key) const { return static_cast<size_t>(key) * 0x9e3779b97f4a7c15U >> 32; }
};

template <class Hash = NumberHash>
using NumberTable = METRICS::ConcurrentHashmap<int, KeyedNumber, Hash, NumberKeys>;

template <class Table>
METRICS::ReturnCode Insert(Table& table, int key, int number = 0) {
  return table.Insert(std::make_shared<KeyedNumber>(KeyedNumber{key, number}));
}

}  // namespace tidegate::test
