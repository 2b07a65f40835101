#include "agent/otlp_format.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "agent/gzip.h"
#include "agent/otlp_point_writer.h"
#include "agent/otlp_reply.h"

namespace tidegate::agent {
namespace {

// Names are sent as they are, so none can collide.
SeriesTable::Options WithoutPage(SeriesTable::Options options) {
  options.page = false;
  return options;
}

int64_t NowNanos() {
  return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

OtlpFormat::OtlpFormat(OtlpAttributes attributes, std::string host,
                       const SeriesTable::Options& table)
    : attributes_(std::move(attributes)),
      host_(std::move(host)),
      table_(WithoutPage(table)),
      start_ns_(NowNanos()) {}

std::unique_ptr<PointWriter> OtlpFormat::MakeWriter() const {
  return std::make_unique<OtlpPointWriter>(attributes_, host_, table_);
}

void OtlpFormat::AppendHealth(const Health& health, std::string_view host, int64_t now_ns,
                              std::string* out) const {
  OtlpWriter(attributes_, host).AppendHealth(health, start_ns_, now_ns, out);
}

std::string OtlpFormat::Pack(std::string_view body) const { return Gzip(body); }

std::vector<std::string> OtlpFormat::Headers() const {
  return {"Content-Type: application/x-protobuf", "Content-Encoding: gzip"};
}

std::string_view OtlpFormat::SpoolMagic() const { return "TGSPOTL1"; }

Verdict OtlpFormat::Read(const HttpReply& reply, uint64_t points) const {
  Verdict verdict = PointFormat::Read(reply, points);
  if (verdict.kind != Verdict::Kind::kTaken) {
    const std::string message = ReadOtlpError(reply.body);
    if (message.empty()) return verdict;
    verdict.words = "HTTP " + std::to_string(reply.status) + ": " + PrintableLine(message);
    return verdict;
  }
  const OtlpReply content = ReadOtlpSuccess(reply.body);
  verdict.dropped = std::min(content.rejected, points);
  if (verdict.dropped > 0) {
    verdict.words = content.message.empty() ? "it did not say why" : PrintableLine(content.message);
  }
  return verdict;
}

}  // namespace tidegate::agent
