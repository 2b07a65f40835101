#include "agent/packet_queue.h"

#include <algorithm>
#include <iterator>
#include <new>

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

constexpr std::chrono::minutes kLineInterval(1);

constexpr size_t kMostDroppers = 1000;

// So that empty messages fill the queue as well, and those who send only one: their nodes, with
// what the heap adds.
constexpr size_t kMessageOverhead = sizeof(SeqpacketServer::Message) + 64;
constexpr size_t kSenderOverhead = 384;

std::string Shown(uint64_t packets, uint64_t bytes) {
  return std::to_string(packets) + " packets of " + std::to_string(bytes) + " bytes";
}

}  // namespace

void PacketQueue::Push(Message message) noexcept {
  health_->bytes += message.sent_size;
  // Dropped messages are freed without the lock.
  std::list<Message> dropped;
  try {
    if (message.data == nullptr) throw std::bad_alloc();
    const size_t bytes = message.size + kMessageOverhead;
    const ProcessId key = message.client.process();
    std::list<Message> node;
    node.push_back(std::move(message));
    const WriteGuard lock(mutex_);
    const auto sender = SenderOf(key);
    sender->messages.splice(sender->messages.end(), node);
    Resize(&*sender, sender->bytes + bytes);
    ++packets_;
    while (bytes_ > max_bytes_) DropFromLargest(&dropped);
    UpdateHealth();
  } catch (const std::bad_alloc&) {
    ++health_->dropped_memory;
    ++health_->out_of_memory;
  }
  ready_.NotifyOne();
}

PacketQueue::Result PacketQueue::Pop(Message* message, std::chrono::milliseconds timeout) {
  std::list<Message> taken;
  Senders late;
  const Clock::time_point until = Clock::now() + timeout;
  const WriteGuard lock(mutex_);
  decoding_ = false;
  while (!closed_ && turns_.empty() && ready_.WaitUntil(mutex_, until)) {
  }
  if (closed_ && Clock::now() >= deadline_) DropAll(&late);
  if (turns_.empty()) return closed_ ? Result::kClosed : Result::kTimeout;
  const auto sender = turns_.begin();
  turns_.splice(turns_.end(), turns_, sender);
  TakeOldest(sender, &taken);
  UpdateHealth();
  decoding_ = true;
  *message = std::move(taken.front());
  return Result::kItem;
}

bool PacketQueue::IsIdle() const {
  const WriteGuard lock(mutex_);
  return turns_.empty() && !decoding_;
}

bool PacketQueue::Holds(const ProcessId& sender) const {
  const WriteGuard lock(mutex_);
  return senders_.count(sender) != 0;
}

void PacketQueue::Close(Clock::time_point deadline) {
  {
    const WriteGuard lock(mutex_);
    closed_ = true;
    deadline_ = deadline;
  }
  ready_.NotifyAll();
}

std::string PacketQueue::ReportDrops(Clock::time_point now) {
  Dropped all;
  std::unordered_map<pid_t, Dropped> by_process;
  {
    const WriteGuard lock(mutex_);
    if (dropped_.packets == 0 || now < next_line_) return {};
    next_line_ = now < Clock::time_point::max() ? now + kLineInterval : now;
    std::swap(all, dropped_);
    by_process.swap(droppers_);
  }
  std::string line = "dropped " + Shown(all.packets, all.bytes) + " from the full queue";
  const auto worst = std::max_element(
      by_process.begin(), by_process.end(),
      [](const auto& one, const auto& other) { return one.second.bytes < other.second.bytes; });
  if (worst == by_process.end()) return line;
  line += ", most of process " + (worst->first > 0 ? std::to_string(worst->first) : "unknown");
  return line + ": " + Shown(worst->second.packets, worst->second.bytes);
}

PacketQueue::Senders::iterator PacketQueue::SenderOf(const ProcessId& key) {
  const auto found = senders_.find(key);
  if (found != senders_.end()) return found->second;
  // All memory first, so that nothing has changed where there is none.
  Senders sender(1);
  std::set<std::pair<size_t, ProcessId>> size = {{0, key}};
  sender.front().key = key;
  const auto made = sender.begin();
  senders_.emplace(key, made);
  sizes_.merge(size);
  turns_.splice(turns_.end(), sender);
  Resize(&*made, kSenderOverhead);
  return made;
}

void PacketQueue::Resize(Sender* sender, size_t bytes) {
  auto size = sizes_.extract({sender->bytes, sender->key});
  bytes_ += bytes - sender->bytes;
  sender->bytes = bytes;
  size.value().first = bytes;
  sizes_.insert(std::move(size));
}

void PacketQueue::TakeOldest(Senders::iterator sender, std::list<Message>* to) {
  std::list<Message>& messages = sender->messages;
  Resize(&*sender, sender->bytes - messages.front().size - kMessageOverhead);
  to->splice(to->end(), messages, messages.begin());
  --packets_;
  if (!messages.empty()) return;
  bytes_ -= sender->bytes;
  sizes_.erase({sender->bytes, sender->key});
  senders_.erase(sender->key);
  turns_.erase(sender);
}

void PacketQueue::DropFromLargest(std::list<Message>* to) {
  TakeOldest(senders_.find(std::prev(sizes_.end())->second)->second, to);
  ++health_->dropped_full;
  CountDropped(to->back());
}

void PacketQueue::CountDropped(const Message& message) {
  ++dropped_.packets;
  dropped_.bytes += message.size;
  const pid_t pid = message.client.pid;
  if (droppers_.size() >= kMostDroppers && droppers_.count(pid) == 0) return;
  try {
    Dropped& by_process = droppers_[pid];
    ++by_process.packets;
    by_process.bytes += message.size;
  } catch (const std::bad_alloc&) {
    ++health_->out_of_memory;  // the line lacks it
  }
}

void PacketQueue::DropAll(Senders* to) {
  health_->dropped_shutdown += packets_;
  to->swap(turns_);
  senders_.clear();
  sizes_.clear();
  bytes_ = packets_ = 0;
  UpdateHealth();
}

void PacketQueue::UpdateHealth() {
  health_->queued_packets = packets_;
  health_->queued_bytes = bytes_;
}

}  // namespace tidegate::agent
