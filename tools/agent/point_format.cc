#include "agent/point_format.h"

namespace tidegate::agent {

Verdict PointFormat::Read(const HttpReply& reply, uint64_t /*points*/) const {
  const int status = reply.status;
  if (status / 100 == 2) return {Verdict::Kind::kTaken, 0, {}};
  // A database can be there before it has been set up.
  if (status == 401 || status == 404) return {Verdict::Kind::kSetUp, 0, {}};
  if (status == 0 || status == 429 || status / 100 == 5) return {Verdict::Kind::kAgain, 0, {}};
  return {Verdict::Kind::kRefused, 0, {}};
}

}  // namespace tidegate::agent
