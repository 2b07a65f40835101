#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/health.h"
#include "agent/http_poster.h"
#include "agent/packet_reader.h"
#include "agent/packet_sink.h"
#include "agent/point_output.h"

namespace tidegate::agent {

// Writes the points of packets in the form that a destination takes. It may hold points, to hand
// them out later or in another order; it counts each point once: by End, by Drop, or as held.
//
// Threads: the decoder's, and after its end the owner's.
class PointWriter {
 public:
  struct Held {
    uint64_t points = 0;
    uint64_t bytes = 0;
  };

  PointWriter() = default;
  virtual ~PointWriter() = default;
  PointWriter(const PointWriter&) = delete;
  PointWriter& operator=(const PointWriter&) = delete;

  // Starts with the records of `block`. All three are borrowed until the last of them.
  virtual void StartBlock(const Packet& packet, const ClientId& client, const Block& block) = 0;

  // Takes one record of the block, which is one point: writes or holds it. False if there is
  // nothing in it that the form can carry. It may write points that it held as well. If it throws,
  // the record is neither written nor held.
  virtual bool Write(const Series& record, PointOutput* out) = 0;

  // The work of the last Write, in bytes that it wrote, or tried to write.
  virtual size_t work() const = 0;

  // That was the last record of a packet. If it throws, points are written, held or dropped.
  virtual void EndPacket(PointOutput* /*out*/) {}

  // Writes held points that are due, or all. Called about once a second, also while no packet
  // comes, and with `all` when the agent is about to end, maybe several times, between which and
  // after which Write may be called. If it throws, points are written, held or dropped.
  virtual void HandOut(bool /*all*/, PointOutput* /*out*/) {}

  virtual Held held() const { return {}; }
};

// The meaning of a reply to a body.
struct Verdict {
  enum class Kind {
    kTaken,    // but for `dropped` points, at most all
    kRefused,  // for good
    kAgain,    // the same request may be taken later
    kSetUp,    // as kAgain, for a time: the receiver or its user may not be set up yet
  };
  Kind kind = Kind::kTaken;
  uint64_t dropped = 0;
  std::string words;      // of the receiver about what it dropped; empty: those of the reply
  bool divisible = true;  // a part of a refused body may be taken
};

// The form in which a kind of destination takes points, from decoded packets to replies.
//
// Threads: any, at one time too.
class PointFormat {
 public:
  // A body as it is posted.
  struct Body {
    std::string bytes;
    uint64_t points = 0;
  };

  PointFormat() = default;
  virtual ~PointFormat() = default;
  PointFormat(const PointFormat&) = delete;
  PointFormat& operator=(const PointFormat&) = delete;

  virtual std::unique_ptr<PointWriter> MakeWriter() const = 0;

  // Appends the agent's own numbers, as a piece of a body.
  virtual void AppendHealth(const Health& health, std::string_view host, int64_t now_ns,
                            std::string* out) const = 0;

  // What is posted for a body that writers have put together: compressed. Throws without memory.
  virtual std::string Pack(std::string_view body) const = 0;

  // Lines of HTTP's head, as "Content-Type: text/plain".
  virtual std::vector<std::string> Headers() const = 0;

  // Eight bytes that files of packed bodies begin with: those of other forms are left alone.
  virtual std::string_view SpoolMagic() const = 0;

  // The verdict of `reply` to a body of `points` points. By default that of the status: 2xx, 401
  // and 404, and none, 429 and 5xx, and all others.
  virtual Verdict Read(const HttpReply& reply, uint64_t points) const;

  // Two halves of a packed body, which was refused, to find the points that are at fault: the
  // first one first, with all points together. Nothing if it cannot be or should not be split.
  virtual std::optional<std::pair<Body, Body>> Split(std::string_view /*packed*/,
                                                     uint64_t /*points*/) const {
    return std::nullopt;
  }

  // The series in a packed body, for the log, if it has one alone. Empty if not.
  virtual std::string Describe(std::string_view /*packed*/) const { return {}; }
};

}  // namespace tidegate::agent
