#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>

#include "agent/collision_log.h"
#include "agent/line_escape.h"

namespace tidegate::agent {

// Finds names that AppendEscaped makes one: measurements among each other, and the tag keys and the
// field keys of a measurement. Reports each pair once, as CollisionLog does.
//
// One of two such names is always an altered one, so only those are remembered, and other names are
// looked up only in measurements that have one: usual names cost next to nothing. Of a pair whose
// altered name comes second the first one is thus found when it comes again, a flush later.
//
// Not thread-safe. Remembers the first kMaxNames altered names, for good, of those that take up to
// kMaxNameBytes with their measurement; collisions of any further or longer one are found only with
// those.
class AlteredNames {
 public:
  static constexpr size_t kMaxNames = 1000;
  static constexpr size_t kMaxNameBytes = 4096;

  explicit AlteredNames(CollisionLog::Reporter report) : log_(std::move(report)) {}

  // The names that follow are those of a block with this measurement. `escaped` is what
  // AppendEscaped made of `name`, borrowed until the next block; `altered` is what it returned.
  void StartBlock(std::string_view name, std::string_view escaped, bool altered);

  // A key of the block, with `escaped` and `altered` as above.
  void See(LinePart part, std::string_view name, std::string_view escaped, bool altered);

  // Whether See has to be called for names that are not altered too.
  bool watches_block() const { return watches_block_; }

 private:
  void Report(LinePart part, std::string_view first, std::string_view second,
              std::string_view escaped);

  CollisionLog log_;
  // What names were before they became what the key ends with. In front of that stand the
  // measurement and the part; what is escaped has no control characters, so they end it.
  std::map<std::string, std::string> originals_;
  std::string_view measurement_;  // of the block, escaped
  bool watches_block_ = false;
  std::string key_;  // kept for its memory
};

}  // namespace tidegate::agent
