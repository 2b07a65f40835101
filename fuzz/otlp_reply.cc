// The body of an answer to a request of OTLP, as any server on the way may write it. No word in it
// is longer than the body, and what comes after a whole answer does not undo it.

#include "agent/otlp_reply.h"

#include <string>

#include "fuzz/target.h"

namespace tidegate::fuzz {
namespace {

bool ReadReply(const uint8_t* data, size_t size) {
  const std::string body(data, data + size);
  const agent::OtlpReply reply = agent::ReadOtlpSuccess(body);
  Require(reply.message.size() <= size, "the message is of the body");
  Require(agent::ReadOtlpError(body).size() <= size, "so is that of an error");
  const bool says_something = reply.rejected > 0 || !reply.message.empty();
  // A field that no answer has.
  const agent::OtlpReply longer = agent::ReadOtlpSuccess(body + "\x7a\x01x");
  if (says_something) {
    Require(longer.rejected == reply.rejected && longer.message == reply.message,
            "unknown fields are skipped");
  }
  return says_something;
}

const Registration kRegistration("otlp_reply", ReadReply);

}  // namespace
}  // namespace tidegate::fuzz
