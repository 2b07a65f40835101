#include "agent/answer_maker.h"

#include <pthread.h>

#include <exception>
#include <utility>

namespace tidegate::agent {

using METRICS::WriteGuard;

AnswerMaker::AnswerMaker(const char* thread, Write write, Report report,
                         std::function<void()> on_made)
    : name_(thread),
      write_(std::move(write)),
      report_(std::move(report)),
      on_made_(std::move(on_made)) {}

void AnswerMaker::Start() {
  thread_ = std::thread([this] {
    pthread_setname_np(pthread_self(), name_);
    Run();
  });
}

void AnswerMaker::Stop() {
  {
    const WriteGuard lock(mutex_);
    state_ = State::kStopped;
  }
  changed_.NotifyOne();
  if (thread_.joinable()) thread_.join();
}

void AnswerMaker::Make(Request request) {
  {
    const WriteGuard lock(mutex_);
    if (state_ == State::kStopped) return;
    request_ = std::move(request);
    state_ = State::kAsked;
  }
  changed_.NotifyOne();
}

bool AnswerMaker::Take(std::optional<HttpAnswer>* answer) {
  const WriteGuard lock(mutex_);
  if (state_ != State::kMade) return false;
  state_ = State::kIdle;
  *answer = std::exchange(answer_, std::nullopt);
  return true;
}

void AnswerMaker::Run() {
  while (const Request request = WaitUntilAsked()) {
    std::optional<HttpAnswer> answer = WriteAnswer(*request);
    const WriteGuard lock(mutex_);
    if (state_ == State::kStopped) return;
    answer_ = std::move(answer);
    state_ = State::kMade;
    on_made_();
  }
}

AnswerMaker::Request AnswerMaker::WaitUntilAsked() {
  const WriteGuard lock(mutex_);
  while (state_ != State::kAsked && state_ != State::kStopped) changed_.Wait(mutex_);
  return state_ == State::kAsked ? std::exchange(request_, nullptr) : nullptr;
}

std::optional<HttpAnswer> AnswerMaker::WriteAnswer(const HttpRequest& request) noexcept {
  try {
    HttpAnswer answer;
    write_(request, &answer);
    return answer;
  } catch (const std::exception& failure) {
    try {
      report_("cannot make " + request.path + ": " + failure.what());
    } catch (const std::exception&) {
      // Without memory for a line there is the counter.
    }
    return std::nullopt;
  }
}

}  // namespace tidegate::agent
