#pragma once

#include <cstddef>

namespace tidegate::agent {

// Gives back most of the buckets of a hash table that once held far more, as erasing gives back
// none. Throws, and changes nothing, where there is no memory for the fewer ones.
template <typename Table>
void ShrinkBuckets(Table* table) {
  constexpr size_t kFew = 1024;
  const size_t buckets = table->bucket_count();
  if (buckets > kFew && buckets / 8 > table->size()) table->rehash(0);
}

}  // namespace tidegate::agent
