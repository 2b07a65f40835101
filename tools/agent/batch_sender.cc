#include "agent/batch_sender.h"

#include <algorithm>
#include <utility>

#include "agent/survives.h"

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

using std::chrono::milliseconds;

// Enough to find a few points at fault in a batch. A server that refuses all of them is not asked
// for each.
constexpr int kMostSplits = 200;

// While draining there is no time for long pauses.
constexpr milliseconds kLongestDrainPause{500};

}  // namespace

BatchSender::BatchSender(const ForwardOptions& options, const PointFormat* format,
                         BatchQueue* queue, DestinationNumbers* numbers, Health* health,
                         Report report)
    : options_(options),
      format_(format),
      queue_(queue),
      numbers_(numbers),
      health_(health),
      report_(std::move(report)),
      poster_(MakePoster(options.target)),
      state_(options.target.url.shown),
      target_(options.target),
      random_(std::random_device()()) {}

std::unique_ptr<HttpPoster> BatchSender::MakePoster(const ForwardTarget& target) const {
  return std::make_unique<HttpPoster>(target.url, target.credentials, format_->Headers());
}

void BatchSender::Redirect(const ForwardTarget& target) {
  {
    const WriteGuard lock(target_mutex_);
    next_target_ = target;
  }
  queue_->SendNow();  // wakes the thread
}

void BatchSender::TakeTarget() {
  Survives(health_, [this] {
    const WriteGuard lock(target_mutex_);
    if (!next_target_) return;
    ReportRefused();
    poster_ = MakePoster(*next_target_);
    target_ = *std::move(next_target_);
    next_target_.reset();
    state_.SetUrl(target_.url.shown);
    failures_ = 0;
    denied_since_.reset();
    next_outage_line_ = next_refusal_line_ = {};
    queue_->SendNow();  // a pause after a failure is over
  });
}

void BatchSender::Cancel() {
  const WriteGuard lock(target_mutex_);
  poster_->Cancel();
}

std::optional<BatchSender::Clock::time_point> BatchSender::Deliver(Delivery* delivery) {
  Batches& parts = delivery->parts;
  while (!parts.empty()) {
    TakeTarget();  // since the batch was waited for
    const HttpReply reply = Post(parts.front());
    const Verdict verdict = format_->Read(reply, parts.front().points);
    if (IsWorthRetrying(verdict.kind)) {
      for (const Batch& part : parts) numbers_->retried_points += part.points;
      const Clock::time_point retry_at = Clock::now() + NextPause(reply.wait);
      state_.NoteOutcome(false);
      Survives(health_, [&] {
        failure_ = TextOf(reply);
        state_.NoteRefusal(failure_, reply.status);
      });
      return retry_at;
    }
    failures_ = 0;
    state_.NoteOutcome(true);
    if (verdict.kind == Verdict::Kind::kRefused && verdict.divisible && Split(delivery)) continue;
    queue_->Sent(parts.front().points);
    Settle(&parts, verdict, reply);
  }
  return std::nullopt;
}

HttpReply BatchSender::Post(const Batch& batch) {
  HttpReply reply = {};
  if (!Survives(health_, [&] { reply = poster_->Post(batch.body, Timeout()); })) {
    reply = {};
    reply.text = "out of memory";
  }
  return reply;
}

milliseconds BatchSender::Timeout() const {
  if (!is_draining()) return target_.timeout;
  const auto left = std::chrono::duration_cast<milliseconds>(drain_end() - Clock::now());
  return std::clamp(left, milliseconds(1), target_.timeout);
}

bool BatchSender::IsWorthRetrying(Verdict::Kind kind) {
  if (kind != Verdict::Kind::kSetUp) {
    denied_since_.reset();
    return kind == Verdict::Kind::kAgain;
  }
  const Clock::time_point now = Clock::now();
  if (!denied_since_) denied_since_ = now;
  return now < *denied_since_ + options_.setup_time;
}

// Doubles up to the longest pause, half of which is random, so that many agents do not come back in
// step. A server that names a time is not asked before it, and not by all at that time.
milliseconds BatchSender::NextPause(milliseconds wanted) {
  constexpr int kMostDoublings = 20;
  const int doublings = std::min(failures_++, kMostDoublings);
  milliseconds full =
      std::min<milliseconds>(options_.first_pause * (1LL << doublings), options_.longest_pause);
  milliseconds least = full / 2;
  const bool draining = is_draining();
  if (!draining) {
    full = std::max(full, wanted);
    least = std::max(least, wanted);
  }
  const milliseconds pause = least + milliseconds(std::uniform_int_distribution<milliseconds::rep>(
                                         0, full.count() / 2)(random_));
  return draining ? std::min(pause, kLongestDrainPause) : pause;
}

bool BatchSender::Split(Delivery* delivery) {
  if (delivery->splits == kMostSplits) return false;
  const Batch& whole = delivery->parts.front();
  Batches halves;
  const bool survived = Survives(health_, [&] {
    auto bodies = format_->Split(whole.body, whole.points);
    if (!bodies) return;
    for (PointFormat::Body* body : {&bodies->first, &bodies->second}) {
      Batch& half = halves.emplace_back();
      half.body = std::move(body->bytes);
      half.points = body->points;
      half.packed = true;
    }
  });
  if (!survived || halves.empty()) return false;
  ++delivery->splits;
  delivery->parts.pop_front();
  delivery->parts.splice(delivery->parts.begin(), halves);
  return true;
}

// Counts the first part as the verdict says, and takes it out. All counts come before all texts,
// which may lack memory.
void BatchSender::Settle(Batches* parts, const Verdict& verdict, const HttpReply& reply) {
  Batches done;
  done.splice(done.begin(), *parts, parts->begin());
  const uint64_t points = done.front().points;
  const bool taken = verdict.kind == Verdict::Kind::kTaken;
  const bool refused = !taken || verdict.dropped > 0;
  const uint64_t dropped = taken ? std::min(verdict.dropped, points) : points;
  const bool delivered = !refused || dropped < points;
  numbers_->Dropped(ForwardDrop::kRejected) += dropped;
  refused_points_ += dropped;
  numbers_->forwarded_points += points - dropped;
  if (delivered) ++numbers_->batches;
  if (refused) {
    std::string words = verdict.words.empty() ? TextOf(reply) : verdict.words;
    const std::string series = format_->Describe(done.front().body);
    if (!series.empty()) words += " (for " + series + ")";
    state_.NoteRefusal(words, reply.status);
    ReportRefusal(words);
  }
  if (delivered && std::exchange(outage_reported_, false)) {
    report_("forwards to " + target_.url.shown + " again");
  }
}

void BatchSender::ReportOutage() {
  if (!IsDue(&next_outage_line_)) return;
  outage_reported_ = true;
  report_("cannot forward to " + target_.url.shown + ", " + failure_ + "; " +
          std::to_string(queue_->Size().points + numbers_->spool_points) + " points wait, " +
          std::to_string(numbers_->Dropped(ForwardDrop::kFull)) + " dropped as the queue was full");
}

void BatchSender::ReportRefusal(const std::string& words) {
  if (!IsDue(&next_refusal_line_)) return;
  report_("dropped " + std::to_string(std::exchange(refused_points_, 0)) + " points that " +
          target_.url.shown + " refused, " + words);
}

bool BatchSender::IsDue(Clock::time_point* next_line) const {
  const Clock::time_point now = Clock::now();
  if (now < *next_line) return false;
  *next_line = now + options_.log_interval;
  return true;
}

void BatchSender::ReportRefused() {
  if (refused_points_ == 0) return;
  report_("dropped " + std::to_string(std::exchange(refused_points_, 0)) + " more points that " +
          target_.url.shown + " refused");
}

}  // namespace tidegate::agent
