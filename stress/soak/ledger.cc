#include "soak/ledger.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace tidegate::stress {
namespace {

// The tenant that the library reports on itself with; its numbers have no counterpart in here.
constexpr char kOwnTenant[] = "inf.metrics";

double Expected(const Account& account, size_t column) {
  const auto& figure = IsCount(static_cast<Column>(column)) ? account.count : account.sum;
  return static_cast<double>(figure.load(std::memory_order_relaxed));
}

std::string Text(double number) { return std::to_string(static_cast<int64_t>(number)); }

}  // namespace

void Ledger::Open(const std::shared_ptr<Account>& account) {
  const METRICS::WriteGuard guard(mutex_);
  report_.Check(accounts_.emplace(account->key, account).second, "two accounts " + account->key);
}

bool Ledger::IsSettled(const Account& account) {
  const METRICS::WriteGuard guard(mutex_);
  bool settled = true;
  for (size_t i = 0; i < kColumns; ++i) {
    if (account.columns[i] && account.tallies.at(i).Sum() != Expected(account, i)) {
      settled = false;
    }
  }
  return settled;
}

std::string Ledger::Difference(const Account& account) {
  const METRICS::WriteGuard guard(mutex_);
  std::string text = account.key;
  for (size_t i = 0; i < kColumns; ++i) {
    const Account::Tally& tally = account.tallies.at(i);
    if (account.columns[i] && tally.Sum() != Expected(account, i)) {
      text += " [column " + std::to_string(i) + ": emitted " + Text(Expected(account, i)) +
              ", received " + Text(tally.amounts[0]) + ", dropped " + Text(tally.amounts[1]) +
              ", lost " + Text(tally.amounts[2]) + "]";
    }
  }
  return text;
}

void Ledger::Close(const Account& account) {
  const METRICS::WriteGuard guard(mutex_);
  accounts_.erase(account.key);
}

void Ledger::CheckReceivedTotals(const Account& account) {
  const METRICS::WriteGuard guard(mutex_);
  for (size_t i = 0; i < kColumns; ++i) {
    if (account.columns[i] && IsTotal(static_cast<Column>(i))) {
      report_.Check(account.tallies.at(i).received_total == Expected(account, i),
                    account.key + ": the last total that arrived is " +
                        Text(account.tallies.at(i).received_total) + " and not " +
                        Text(Expected(account, i)));
    }
  }
}

void Ledger::Connected(int socket, const std::string& path) {
  const METRICS::WriteGuard guard(mutex_);
  connections_[socket] = std::make_shared<Connection>(Connection{path});
}

void Ledger::NotConnected(int socket) {
  const METRICS::WriteGuard guard(mutex_);
  connections_.erase(socket);
}

void Ledger::Sending(int socket, const char* bytes, size_t size) {
  const size_t hash = std::hash<std::string_view>()({bytes, size});
  const METRICS::WriteGuard guard(mutex_);
  PacketPtr& current = current_[std::this_thread::get_id()];
  const bool again = current != nullptr && current->hash == hash && current->size == size;
  if (!again) {
    if (current != nullptr) {
      Settle(*current, Fate::kDropped);
    }
    current = Record(bytes, size, hash);
  }
  const auto connection = connections_.find(socket);
  current->connection = connection == connections_.end() ? nullptr : connection->second;
  under_way_.emplace(hash, current);
}

void Ledger::Sent(bool delivered) {
  const METRICS::WriteGuard guard(mutex_);
  PacketPtr& current = current_[std::this_thread::get_id()];
  Packet& packet = *current;
  if (delivered) {
    packet.delivered = true;
    report_.Check(packet.connection != nullptr, "a packet went out on a socket without an agent");
    // Its agent may have ended since.
    if (!packet.settled && packet.connection != nullptr &&
        ended_.count(packet.connection->path) != 0) {
      SettleUnread(packet);
    }
    current = nullptr;
    return;
  }
  ++figures_.failed_sends;
  report_.Check(!packet.settled, "a packet was received whose send failed");
  const auto [first, last] = under_way_.equal_range(packet.hash);
  const auto found =
      std::find_if(first, last, [&](const auto& entry) { return entry.second == current; });
  if (found != last) {
    under_way_.erase(found);
  }
}

void Ledger::Received(const char* bytes, size_t size) {
  const size_t hash = std::hash<std::string_view>()({bytes, size});
  const METRICS::WriteGuard guard(mutex_);
  const auto found = under_way_.find(hash);
  if (!report_.Check(found != under_way_.end() && found->second->size == size,
                     "a packet was received twice, or was never sent")) {
    return;
  }
  const PacketPtr packet = found->second;
  under_way_.erase(found);
  if (packet->connection != nullptr) {
    uint64_t& last_read = packet->connection->last_read;
    report_.Check(last_read < packet->number, "packets of a connection came out of order");
    last_read = packet->number;
  }
  Settle(*packet, Fate::kReceived);
}

void Ledger::AgentEnded(const std::string& path, bool drained) {
  const METRICS::WriteGuard guard(mutex_);
  ended_.emplace(path, drained);
  std::vector<PacketPtr> unread;
  for (const auto& [hash, packet] : under_way_) {
    if (packet->delivered && packet->connection != nullptr && packet->connection->path == path) {
      unread.push_back(packet);
    }
  }
  for (const PacketPtr& packet : unread) {
    SettleUnread(*packet);
  }
}

void Ledger::SettleUnread(Packet& packet) {
  const auto [first, last] = under_way_.equal_range(packet.hash);
  const auto found =
      std::find_if(first, last, [&](const auto& entry) { return entry.second.get() == &packet; });
  const PacketPtr keep = found != last ? found->second : nullptr;
  if (found != last) {
    under_way_.erase(found);
  }
  report_.Check(!ended_[packet.connection->path],
                "an agent that drained its sockets missed a packet");
  report_.Check(packet.number > packet.connection->last_read,
                "a killed agent lost a packet before one that it had read");
  Settle(packet, Fate::kLost);
}

void Ledger::Settle(Packet& packet, Fate fate) {
  packet.settled = true;
  ++(fate == Fate::kReceived  ? figures_.received
     : fate == Fate::kDropped ? figures_.dropped
                              : figures_.lost);
  for (const Entry& entry : packet.entries) {
    Account::Tally& tally = entry.account->tallies.at(IndexOf(entry.column));
    tally.amounts.at(static_cast<size_t>(fate)) += entry.amount;
    if (fate == Fate::kReceived) {
      tally.received_total = std::max(tally.received_total, entry.total);
    }
  }
  packet.entries.clear();
}

Ledger::PacketPtr Ledger::Record(const char* bytes, size_t size, size_t hash) {
  auto packet = std::make_shared<Packet>();
  packet->number = next_number_++;
  packet->hash = hash;
  packet->size = size;
  ++figures_.packets;
  agent::Packet decoded;
  agent::ReadError error;
  if (!agent::ReadPacket(bytes, size, &decoded, &error)) {
    report_.Violation("a packet cannot be read at offset " + std::to_string(error.offset) + ": " +
                      error.reason);
    return packet;
  }
  if (!decoded.blocks.empty()) {
    int64_t& last = last_flush_[decoded.tenant];
    if (decoded.blocks.front().timestamp > last) {
      last = decoded.blocks.front().timestamp;
      ++figures_.flushes;
    }
  }
  if (decoded.tenant == kOwnTenant) {
    return packet;
  }
  for (const agent::Block& block : decoded.blocks) {
    for (const agent::Series& series : block.series) {
      RecordSeries(ReadSeries(decoded, block, series), block.timestamp, *packet);
    }
  }
  return packet;
}

void Ledger::RecordSeries(const Reading& reading, int64_t timestamp, Packet& packet) {
  const auto found = accounts_.find(reading.key);
  if (found == accounts_.end()) {
    CheckStranger(reading);
    return;
  }
  for (size_t i = 0; i < kColumns; ++i) {
    if (reading.present[i]) {
      ++figures_.points;
      RecordColumn(found->second, static_cast<Column>(i), reading.values.at(i), timestamp, packet);
    }
  }
}

// A series that was closed trails for two flushes, and may yet be in a list that a flush holds.
void Ledger::CheckStranger(const Reading& reading) {
  for (size_t i = 0; i < kColumns; ++i) {
    if (reading.present[i] && !IsTotal(static_cast<Column>(i)) && reading.values.at(i) != 0) {
      report_.Violation("a closed or unknown series reports " + Text(reading.values.at(i)) + ": " +
                        reading.key);
    }
  }
}

void Ledger::RecordColumn(const std::shared_ptr<Account>& account, Column column, double value,
                          int64_t timestamp, Packet& packet) {
  Account::Tally& tally = account->tallies.at(IndexOf(column));
  const auto refuse = [&](const char* what) {
    report_.Violation(std::string(what) + ": " + account->key + ", column " +
                      std::to_string(IndexOf(column)));
  };
  if (!account->columns[IndexOf(column)]) {
    refuse("an unexpected column");
  }
  if (timestamp % account->interval != 0) {
    refuse("a time between two intervals");
  }
  if (timestamp <= tally.timestamp) {
    // A point for the interval before, which came after that of the interval.
    if (timestamp == tally.timestamp) {
      refuse("two points for one time");
    }
    if (value != (IsTotal(column) ? tally.total_before : 0)) {
      refuse("a point for the interval before is not what stood then");
    }
    return;
  }
  tally.timestamp = timestamp;
  double amount = IsPerSecond(column) ? value * account->interval : value;
  if (IsTotal(column)) {
    if (value < tally.total) {
      refuse("a total went down");
    }
    amount = value - tally.total;
    tally.total_before = std::exchange(tally.total, value);
  }
  packet.entries.push_back({account, column, amount, value});
}

void Ledger::Finish() {
  const METRICS::WriteGuard guard(mutex_);
  for (auto& [thread, packet] : current_) {
    if (packet != nullptr) {
      Settle(*packet, Fate::kDropped);
    }
  }
  current_.clear();
  report_.Check(under_way_.empty(), std::to_string(under_way_.size()) + " packets vanished");
  report_.Check(figures_.packets == figures_.received + figures_.dropped + figures_.lost,
                "packets do not add up");
}

Ledger::Figures Ledger::figures() const {
  const METRICS::WriteGuard guard(mutex_);
  return figures_;
}

}  // namespace tidegate::stress
