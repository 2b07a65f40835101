#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "agent/http_request.h"
#include "agent/report.h"
#include "util/condition.h"
#include "util/metric_lock.h"

namespace tidegate::agent {

// Makes answers on a thread of its own, one at a time, so that a long one delays nothing else.
//
// Threads: `write`, `report` and `on_made` are called on its own; all methods from one.
class AnswerMaker {
 public:
  using Request = std::shared_ptr<const HttpRequest>;
  using Write = std::function<void(const HttpRequest&, HttpAnswer*)>;

  // `thread` is its name. If `write` throws, there is no answer, and `report` gets a line.
  // `on_made` says that there is something to take; it must not throw.
  AnswerMaker(const char* thread, Write write, Report report, std::function<void()> on_made);
  ~AnswerMaker() { Stop(); }
  AnswerMaker(const AnswerMaker&) = delete;
  AnswerMaker& operator=(const AnswerMaker&) = delete;

  // Throws std::system_error if there can be no thread.
  void Start();
  // Waits for the answer that is being made. Safe twice.
  void Stop();

  // Begins an answer. REQUIRES: the one before has been taken.
  void Make(Request request);
  // Whether the answer has been made or has failed; if so it is handed over, in the latter case
  // without a value. Once for each.
  bool Take(std::optional<HttpAnswer>* answer);

 private:
  enum class State { kIdle, kAsked, kMade, kStopped };

  void Run();
  // Null once it is stopped.
  Request WaitUntilAsked();
  std::optional<HttpAnswer> WriteAnswer(const HttpRequest& request) noexcept;

  const char* const name_;
  const Write write_;
  const Report report_;
  const std::function<void()> on_made_;
  METRICS::Mutex mutex_;
  METRICS::Condition changed_;
  State state_ METRICS_GUARDED_BY(mutex_) = State::kIdle;
  Request request_ METRICS_GUARDED_BY(mutex_);
  std::optional<HttpAnswer> answer_ METRICS_GUARDED_BY(mutex_);
  std::thread thread_;  // only of the callers' thread
};

}  // namespace tidegate::agent
