#include "agent/forwarder.h"

#include <pthread.h>

#include <utility>

#include "agent/survives.h"

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

using std::chrono::milliseconds;

// Every record repeats the names of its block: more takes a packet that is made to be expensive.
constexpr size_t kMaxPacketBytes = size_t{256} << 20;

ForwardOptions WithMagic(ForwardOptions options, std::string_view magic) {
  options.spool.magic = magic;
  return options;
}

int64_t NowNanos() {
  return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

Forwarder::Forwarder(const ForwardOptions& options, std::unique_ptr<const PointFormat> format,
                     DestinationNumbers* numbers, Health* health, Report report)
    : format_(std::move(format)),
      options_(WithMagic(options, format_->SpoolMagic())),
      numbers_(numbers),
      health_(health),
      report_(std::move(report)),
      spool_(options_.spool, numbers, health, report_),
      queue_(
          options_.limits, options_.spool.folder.empty()
                               ? std::function<bool()>()
                               : [this] { return !spool_.empty() || has_spooled_parts_; }),
      sender_(options_, format_.get(), &queue_, numbers, health, report_),
      writer_(format_->MakeWriter()),
      output_(&queue_, numbers, health) {
  if (!options_.spool.folder.empty()) {
    feeder_.emplace(&queue_, &spool_, format_.get(), numbers_, health_, [this] { PublishSize(); });
  }
}

Forwarder::~Forwarder() { Stop(milliseconds(0)); }

void Forwarder::Start() {
  thread_ = std::thread(&Forwarder::Run, this);
  if (feeder_) feeder_->Start();
}

void Forwarder::BeginStop(milliseconds drain) {
  if (!thread_.joinable() || sender_.is_draining()) return;
  const Clock::time_point end = Clock::now() + drain;
  HandOut(true);
  sender_.Drain(end);
  queue_.End();
}

void Forwarder::Stop(milliseconds drain) {
  if (!thread_.joinable()) return;
  BeginStop(drain);
  if (ended_.wait_until(sender_.drain_end()) != std::future_status::ready) sender_.Cancel();
  thread_.join();
  if (feeder_) feeder_->Finish();
  DropWhatIsLeft();
}

void Forwarder::DropWhatIsLeft() {
  const uint64_t left = queue_.Clear();
  PublishSize();
  numbers_->Dropped(ForwardDrop::kShutdown) += left;
  if (left == 0) return;
  Survives(health_, [&] {
    report_("dropped " + std::to_string(left) + " points that could not be forwarded");
  });
}

void Forwarder::Flush() {
  flushing_ = true;
  queue_.Flush();
}

bool Forwarder::IsIdle() const { return numbers_->held_points == 0 && queue_.IsIdle(); }

void Forwarder::Handle(const Packet& packet, const ClientId& client) {
  left_ = packet.series_count;
  try {
    Write(packet, client);
  } catch (const std::exception&) {
    output_.Drop(ForwardDrop::kMemory, left_);
    output_.Abandon();
    throw;
  }
}

void Forwarder::Write(const Packet& packet, const ClientId& client) {
  size_t work = 0;
  for (const Block& block : packet.blocks) {
    writer_->StartBlock(packet, client, block);
    for (const Series& record : block.series) {
      const bool tried = work < kMaxPacketBytes;
      if (!tried || !writer_->Write(record, &output_)) output_.Drop(ForwardDrop::kEmpty, 1);
      --left_;
      if (tried) work += writer_->work();
    }
  }
  writer_->EndPacket(&output_);
  output_.Push();
  PublishHeld();
  PublishSize();
}

void Forwarder::HandOut(bool all) {
  if (Survives(health_, [&] { writer_->HandOut(all, &output_); })) {
    output_.Push();
  } else {
    output_.Abandon();
  }
  PublishHeld();
  PublishSize();
}

void Forwarder::Run() {
  pthread_setname_np(pthread_self(), "forwarder");
  next_health_ = Clock::now() + options_.health_interval;
  while (true) {
    const bool draining = sender_.is_draining();
    if (draining && Clock::now() >= sender_.drain_end()) break;
    Survives(health_, [this] { SendHealthIfDue(); });
    sender_.TakeTarget();
    Batches batch = queue_.Take(draining ? sender_.drain_end() : next_health_);
    if (batch.empty() && queue_.IsSpooledDue()) {
      DeliverSpooled();
      continue;
    }
    if (batch.empty() && draining) break;
    if (!batch.empty() && batch.front().packed) {
      DeliverQueued(&batch);
    } else if (!batch.empty() && !Survives(health_, [&] { Pack(&batch); })) {
      CountLost(batch);
    }
    PublishSize();
  }
  Survives(health_, [this] { KeepSpooledParts(); });
  Survives(health_, [this] { sender_.ReportRefused(); });
  end_.set_value();
}

void Forwarder::SendHealthIfDue() {
  const Clock::time_point now = Clock::now();
  if (now < next_health_) return;
  next_health_ = now + options_.health_interval;
  std::string lines;
  format_->AppendHealth(*health_, options_.host, NowNanos(), &lines);
  // No points: those are what clients have sent.
  CountFull(queue_.Append(lines, 0));
}

void Forwarder::DeliverSpooled() {
  if (spooled_.parts.empty()) {
    spooled_.splits = 0;
    Survives(health_, [&] { spooled_.parts = spool_.Take(); });
    if (spooled_.parts.empty() && !spool_.empty()) {  // there was no memory or no descriptor for it
      queue_.ReturnUnsent({}, Clock::now() + options_.first_pause);
    }
  }
  if (spooled_.parts.empty()) return;
  Survives(health_, [&] {
    const auto retry_at = sender_.Deliver(&spooled_);
    if (!retry_at) return;
    queue_.ReturnUnsent({}, *retry_at);
    sender_.ReportOutage();
  });
  const bool gone = spooled_.parts.empty();
  // The spool keeps a batch that is whole, also if this agent ends. It knows nothing of parts.
  if (spooled_.splits == 0) spooled_.parts.clear();
  has_spooled_parts_ = !spooled_.parts.empty();
  if (!has_spooled_parts_) Survives(health_, [&] { spool_.Settle(gone); });
}

// The rest of a batch of the spool of which parts are done with goes the way of the queue.
void Forwarder::KeepSpooledParts() {
  if (spooled_.parts.empty()) return;
  CountFull(queue_.ReturnUnsent(std::move(spooled_.parts), Clock::now()));
  spool_.Settle(true);
}

void Forwarder::Pack(Batches* batch) {
  batch->front().body = format_->Pack(batch->front().body);
  batch->front().packed = true;
  CountFull(queue_.ReturnPacked(std::move(*batch)));
}

void Forwarder::DeliverQueued(Batches* batch) {
  BatchSender::Delivery delivery;
  delivery.parts.swap(*batch);
  const bool survived = Survives(health_, [&] {
    const auto retry_at = sender_.Deliver(&delivery);
    if (!retry_at) return;
    CountFull(queue_.ReturnUnsent(std::move(delivery.parts), *retry_at));
    sender_.ReportOutage();
  });
  if (!survived) CountLost(delivery.parts);
}

DestinationStatus Forwarder::Status() const {
  DestinationStatus status;
  status.name = options_.name;
  status.type = FactsOf(options_.kind).name;
  sender_.CopyTo(&status);
  status.queue_points = numbers_->queue_points + numbers_->held_points;
  status.queue_bytes = numbers_->queue_bytes + numbers_->held_bytes;
  status.queue_limit_points = queue_.limits().queue_points;
  status.spool_points = numbers_->spool_points;
  status.spool_bytes = numbers_->spool_bytes;
  status.forwarded_points = numbers_->forwarded_points;
  status.retried_points = numbers_->retried_points;
  for (size_t i = 0; i < kForwardDrops; ++i) status.dropped[i] = numbers_->dropped[i];
  return status;
}

void Forwarder::CountFull(uint64_t points) { numbers_->Dropped(ForwardDrop::kFull) += points; }

// Points that were kept, or counted, are no longer in there.
void Forwarder::CountLost(const Batches& batches) {
  for (const Batch& lost : batches) numbers_->Dropped(ForwardDrop::kMemory) += lost.points;
}

void Forwarder::PublishHeld() {
  const PointWriter::Held held = writer_->held();
  numbers_->held_points = held.points;
  numbers_->held_bytes = held.bytes;
}

void Forwarder::PublishSize() {
  const WriteGuard lock(publishing_);  // else an older size might be stored last
  const QueueSize size = queue_.Size();
  numbers_->queue_points = size.points;
  numbers_->queue_bytes = size.bytes;
}

}  // namespace tidegate::agent
