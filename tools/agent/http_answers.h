#pragma once

#include <microhttpd.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/health.h"
#include "agent/http_request.h"

namespace tidegate::agent {

struct DestroyResponse {
  void operator()(MHD_Response* response) const { MHD_destroy_response(response); }
};
using HttpResponse = std::unique_ptr<MHD_Response, DestroyResponse>;

// Of a text that the caller keeps. Null without memory.
HttpResponse MakeResponse(const void* text, size_t size, const char* type, const char* etag);

// Answers that another thread makes, one at a time; how many there are at a time is bounded. Each
// exists once, and goes to all clients that asked for the same before it was begun.
//
// Not thread-safe. Allocates nothing but what the library needs for a response.
class HttpAnswers {
 public:
  using Clock = std::chrono::steady_clock;
  using Request = std::shared_ptr<const HttpRequest>;
  enum class State { kFree, kMaking, kReady, kFailed };
  struct Slot {
    State state = State::kFree;
    Request request;
    std::optional<HttpAnswer> answer;  // none when free: an empty text may keep its memory
    HttpResponse response;
    size_t readers = 0;  // clients that wait for it or read it
    Clock::time_point made;
  };

  // `make` begins an answer, which SetMade then hands in.
  HttpAnswers(size_t most, std::function<void(Request)> make, Health* health)
      : slots_(most), make_(std::move(make)), health_(health) {}

  // Null if another one is being made or if there is no room. The clients are added to `readers`
  // before Make.
  Slot* Begin(const Request& request);
  void Make(const Slot& slot) { make_(slot.request); }

  // The one that was begun; no answer if it could not be made. The slot is good until the next
  // call.
  const Slot* SetMade(std::optional<HttpAnswer> answer);

  // For one reader.
  void Release(Slot* slot);

  bool IsFull() const;
  const Slot* Oldest() const;  // of those that are read

 private:
  std::vector<Slot> slots_;
  const std::function<void(Request)> make_;
  Health* const health_;
};

}  // namespace tidegate::agent
