#include "codec/tag_kv.h"

#include <cstdint>

#include "codec/pack.h"

namespace lattice_kit::codec {

std::string PackFields(const std::vector<FieldInfo>& fields) {
  constexpr int32_t kFirstCapacity = 64;
  Pack scratch(kFirstCapacity);
  scratch.Put(static_cast<uint32_t>(fields.size()));
  for (const FieldInfo& field : fields) {
    EncodeText(field.name, scratch);
    scratch.Put(field.type);
  }
  return scratch.Bytes();
}

void EncodeText(const std::string& s, Pack& pack) {
  const auto length = static_cast<uint32_t>(s.size());
  pack.Put(length);
  pack.PutRaw(s.data(), static_cast<int32_t>(length));
}

void Encode(const TagKV& tag, Pack& pack) {
  EncodeText(tag.key, pack);
  EncodeText(tag.value, pack);
}

}  // namespace lattice_kit::codec
