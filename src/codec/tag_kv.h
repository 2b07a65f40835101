#pragma once

#include <string>
#include <utility>
#include <vector>

namespace lattice_kit::codec {

class Pack;

/// Codec value type: the field holds doubles. The only one in use.
constexpr signed char kCodecValueDouble = 0;

/// Keys of the two tags that say whose data a packet holds.
constexpr char kCodecAccountID[] = "account_id";
constexpr char kCodecProjectID[] = "project_id";

/// One tag as packets carry it. Orders by `key` alone.
struct TagKV {
  TagKV() = default;
  TagKV(std::string tag_key, std::string tag_value)
      : key(std::move(tag_key)), value(std::move(tag_value)) {}

  std::string key;
  std::string value;
};

inline bool operator<(const TagKV& a, const TagKV& b) { return a.key < b.key; }

/// One column of a block: its name and codec value type.
struct FieldInfo {
  FieldInfo(std::string field_name, signed char value_type)
      : name(std::move(field_name)), type(value_type) {}
  FieldInfo(const char* field_name, signed char value_type) : name(field_name), type(value_type) {}

  std::string name;
  signed char type;
};

/// A list of columns in packet form: their number, then name and value type of each.
std::string PackFields(const std::vector<FieldInfo>& fields);

/// Appends `s` to `pack`: its length as 32 bits, then its bytes.
void EncodeText(const std::string& s, Pack& pack);

/// Appends the key and then the value of `tag`, each as a text.
void Encode(const TagKV& tag, Pack& pack);

}  // namespace lattice_kit::codec
