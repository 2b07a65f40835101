#include "codec/fnv_hash.h"

namespace lattice_kit::codec {

uint32_t StrVecFNVHash(const std::vector<std::string>& v) {
  uint32_t hash = kFNVOffsetBasis;
  for (const std::string& s : v) {
    hash = DelimitedFNVHash(s, hash);
  }
  return hash;
}

uint32_t TagVecFNVHash(const std::vector<TagKV>& v) {
  uint32_t hash = kFNVOffsetBasis;
  for (const TagKV& tag : v) {
    hash = TagFNVHash(tag.key, tag.value, hash);
  }
  return hash;
}

}  // namespace lattice_kit::codec
