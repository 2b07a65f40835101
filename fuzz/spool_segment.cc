// A segment of the spool, as a crash, a bad disk or a stranger left it. The records that are found
// lie within it, in order. A record that is appended is found too, whatever came before.

#include "agent/spool_segment.h"

#include <cstring>
#include <string>

#include "fuzz/target.h"

namespace tidegate::fuzz {
namespace {

using agent::SegmentContent;
using agent::SpoolRecord;

SegmentContent Scan(const std::string& bytes) {
  return agent::ScanSegment(
      [&bytes](uint64_t offset, char* to, size_t size) {
        Require(offset <= bytes.size() && size <= bytes.size() - offset, "reads stay within");
        std::memcpy(to, bytes.data() + offset, size);
        return true;
      },
      bytes.size());
}

void CheckOrder(const SegmentContent& content, size_t size) {
  uint64_t end = agent::kSegmentMagic.size();
  for (const SpoolRecord& record : content.waiting) {
    Require(record.offset >= end && record.size <= size && record.end() <= size,
            "records follow each other");
    end = record.end();
  }
}

// Unless its bytes are the body of a record that is cut off before it.
void CheckAppended(const std::string& bytes, const SegmentContent& before) {
  agent::Batch batch;
  batch.body = "body";
  batch.points = 7;
  SpoolRecord added;
  const std::string whole = bytes + agent::MakeRecordHead(batch, 1, &added) + batch.body;
  const SegmentContent after = Scan(whole);
  if (before.damaged > 0 || bytes.size() < agent::kSegmentMagic.size()) return;
  Require(after.waiting.size() == before.waiting.size() + 1, "one more record");
  Require(after.waiting.back().points == 7, "with its points");
  Require(agent::IsBodyOf(after.waiting.back(), whole.substr(after.waiting.back().body())),
          "and its body");
}

bool ReadSegment(const uint8_t* data, size_t size) {
  const std::string bytes(data, data + size);
  const SegmentContent content = Scan(bytes);
  CheckOrder(content, size);
  CheckAppended(bytes, content);
  return !content.waiting.empty();
}

const Registration kRegistration("spool_segment", ReadSegment);

}  // namespace
}  // namespace tidegate::fuzz
