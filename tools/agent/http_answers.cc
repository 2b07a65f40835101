#include "agent/http_answers.h"

#include <algorithm>
#include <utility>

namespace tidegate::agent {

HttpResponse MakeResponse(const void* text, size_t size, const char* type, const char* etag) {
  HttpResponse response(
      MHD_create_response_from_buffer(size, const_cast<void*>(text), MHD_RESPMEM_PERSISTENT));
  const auto add = [&](const char* name, const char* value) {
    return MHD_add_response_header(response.get(), name, value) == MHD_YES;
  };
  const bool made =
      response != nullptr && (type == nullptr || add(MHD_HTTP_HEADER_CONTENT_TYPE, type)) &&
      add("X-Content-Type-Options", "nosniff") &&
      (etag == nullptr ||
       (add(MHD_HTTP_HEADER_ETAG, etag) && add(MHD_HTTP_HEADER_CACHE_CONTROL, "no-cache")));
  return made ? std::move(response) : nullptr;
}

HttpAnswers::Slot* HttpAnswers::Begin(const Request& request) {
  Slot* slot = nullptr;
  for (Slot& other : slots_) {
    if (other.state == State::kMaking) return nullptr;  // that one first
    if (other.state == State::kFree) slot = &other;
  }
  if (slot == nullptr) return nullptr;
  slot->state = State::kMaking;
  slot->request = request;
  return slot;
}

const HttpAnswers::Slot* HttpAnswers::SetMade(std::optional<HttpAnswer> answer) {
  const auto made = std::find_if(slots_.begin(), slots_.end(),
                                 [](const Slot& other) { return other.state == State::kMaking; });
  made->answer = std::move(answer);
  if (made->answer) {
    const auto& [status, type, text, etag] = *made->answer;
    made->response =
        MakeResponse(text.data(), text.size(), type, etag.empty() ? nullptr : etag.c_str());
  }
  made->state = made->response ? State::kReady : State::kFailed;
  made->made = Clock::now();
  if (!made->response) ++health_->http_failed_pages;
  if (made->readers == 0) *made = Slot();
  return &*made;
}

void HttpAnswers::Release(Slot* slot) {
  if (--slot->readers == 0 && slot->state != State::kMaking) *slot = Slot();
}

bool HttpAnswers::IsFull() const {
  return std::none_of(slots_.begin(), slots_.end(),
                      [](const Slot& slot) { return slot.state == State::kFree; });
}

const HttpAnswers::Slot* HttpAnswers::Oldest() const {
  const Slot* oldest = nullptr;
  for (const Slot& slot : slots_) {
    if (slot.state == State::kFree || slot.state == State::kMaking) continue;
    if (oldest == nullptr || slot.made < oldest->made) oldest = &slot;
  }
  return oldest;
}

}  // namespace tidegate::agent
