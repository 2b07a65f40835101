#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace tidegate::agent {

// The content of a receiver's answer to a request of OTLP.
struct OtlpReply {
  uint64_t rejected = 0;  // points that it did not keep of a request that it took
  std::string message;    // in the receiver's words, as they came; may be empty
};

// Reads the body of an answer with a status of success. A body that is no such message, as of a
// receiver that answers in JSON, says nothing.
OtlpReply ReadOtlpSuccess(std::string_view body);

// The receiver's words in the body of an answer with any other status; empty if there are none.
std::string ReadOtlpError(std::string_view body);

}  // namespace tidegate::agent
