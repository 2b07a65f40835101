#include "agent/influx_format.h"

#include <algorithm>

#include "agent/gzip.h"
#include "agent/line_protocol.h"
#include "agent/partial_write.h"
#include "agent/spool_segment.h"

namespace tidegate::agent {
namespace {

class InfluxWriter : public PointWriter {
 public:
  explicit InfluxWriter(ProcessLabel label) : lines_(label) {}

  void StartBlock(const Packet& packet, const ClientId& client, const Block& block) override {
    lines_.StartBlock(packet, client, block);
  }

  bool Write(const Series& record, PointOutput* out) override {
    const size_t before = out->bytes()->size();
    if (!lines_.AppendRecord(record, out->bytes())) {
      work_ = lines_.tried_bytes();
      return false;
    }
    work_ = std::max(out->bytes()->size() - before, lines_.tried_bytes());
    out->End(1);
    return true;
  }

  // A line that is too long takes as much to make as one that is sent.
  size_t work() const override { return work_; }

 private:
  LineWriter lines_;
  size_t work_ = 0;
};

}  // namespace

std::unique_ptr<PointWriter> InfluxFormat::MakeWriter() const {
  return std::make_unique<InfluxWriter>(label_);
}

void InfluxFormat::AppendHealth(const Health& health, std::string_view host, int64_t now_ns,
                                std::string* out) const {
  AppendHealthLines(health, host, now_ns, out);
}

std::string InfluxFormat::Pack(std::string_view body) const { return Gzip(body); }

std::vector<std::string> InfluxFormat::Headers() const {
  return {"Content-Type: text/plain; charset=utf-8", "Content-Encoding: gzip"};
}

std::string_view InfluxFormat::SpoolMagic() const { return kSegmentMagic; }

Verdict InfluxFormat::Read(const HttpReply& reply, uint64_t points) const {
  Verdict verdict = PointFormat::Read(reply, points);
  if (reply.status != 400) return verdict;
  if (const auto lines = LinesDropped(reply.body)) {
    verdict.kind = Verdict::Kind::kTaken;
    verdict.dropped = *lines;
  }
  return verdict;
}

}  // namespace tidegate::agent
