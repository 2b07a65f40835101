#include "agent/page_maker.h"

#include <pthread.h>

#include <exception>
#include <utility>

namespace tidegate::agent {

using METRICS::WriteGuard;

PageMaker::PageMaker(std::function<void(std::string*)> write, Report report,
                     std::function<void()> on_made)
    : write_(std::move(write)), report_(std::move(report)), on_made_(std::move(on_made)) {}

void PageMaker::Start() {
  thread_ = std::thread([this] {
    pthread_setname_np(pthread_self(), "page");
    Run();
  });
}

void PageMaker::Stop() {
  {
    const WriteGuard lock(mutex_);
    state_ = State::kStopped;
  }
  changed_.NotifyOne();
  if (thread_.joinable()) thread_.join();
}

void PageMaker::Make() {
  {
    const WriteGuard lock(mutex_);
    state_ = State::kAsked;
  }
  changed_.NotifyOne();
}

bool PageMaker::Take(std::optional<std::string>* page) {
  const WriteGuard lock(mutex_);
  if (state_ != State::kMade) return false;
  state_ = State::kIdle;
  *page = std::exchange(page_, std::nullopt);
  return true;
}

void PageMaker::Run() {
  while (WaitUntilAsked()) {
    std::optional<std::string> page = Write();
    const WriteGuard lock(mutex_);
    if (state_ == State::kStopped) return;
    page_ = std::move(page);
    state_ = State::kMade;
    on_made_();
  }
}

bool PageMaker::WaitUntilAsked() {
  const WriteGuard lock(mutex_);
  while (state_ != State::kAsked && state_ != State::kStopped) changed_.Wait(mutex_);
  return state_ == State::kAsked;
}

std::optional<std::string> PageMaker::Write() noexcept {
  try {
    std::string page;
    page.reserve(last_size_ + last_size_ / 8);
    write_(&page);
    last_size_ = page.size();
    return page;
  } catch (const std::exception& failure) {
    last_size_ = 0;
    try {
      report_("cannot make the page of metrics: " + std::string(failure.what()));
    } catch (const std::exception&) {
      // Without memory for a line there is the counter.
    }
    return std::nullopt;
  }
}

}  // namespace tidegate::agent
