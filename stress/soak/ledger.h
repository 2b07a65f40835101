#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "agent/packet_reader.h"
#include "soak/account.h"
#include "soak/columns.h"
#include "support/report.h"
#include "util/metric_lock.h"

namespace tidegate::stress {

// The books of the soak. It sees each packet when it is sent, with the result of the send, and
// again when an agent reads it, and can account for every number at any time.
//
// Nothing in here relies on how often the library tries: a packet has finally failed once its
// thread sends another one. All operations from any thread, under one lock, which no emission
// takes.
class Ledger {
 public:
  struct Figures {
    int64_t packets = 0;
    int64_t received = 0;
    int64_t dropped = 0;
    int64_t lost = 0;
    int64_t failed_sends = 0;
    int64_t flushes = 0;  // with at least one packet; of the library's own tenant too
    int64_t points = 0;   // of the series that have accounts
  };

  explicit Ledger(Report& report) : report_(report) {}

  // A new series. REQUIRES: `account->key` is not in the books.
  void Open(const std::shared_ptr<Account>& account);
  // Whether all that was emitted is accounted for. Too much never settles. REQUIRES: nobody emits
  // on the series.
  bool IsSettled(const Account& account);
  // The numbers that are missing or too much, for a message.
  std::string Difference(const Account& account);
  // Takes a settled series out: from here on it may only report that nothing happens.
  void Close(const Account& account);
  // Violations where a total that was received last is not the total.
  void CheckReceivedTotals(const Account& account);

  // The sending side; `Sending` comes before the call, so that no agent can be faster.
  void Connected(int socket, const std::string& path);
  void NotConnected(int socket);
  void Sending(int socket, const char* bytes, size_t size);
  void Sent(bool delivered);

  // The agent's side.
  void Received(const char* bytes, size_t size);
  // The agent at `path`, which no two agents share, is gone. `drained`: it read all that it was
  // ever sent, else what it had not read is lost, which may only be what was sent last on each
  // connection.
  void AgentEnded(const std::string& path, bool drained);

  // To be called when nobody sends or reads any more.
  void Finish();
  Figures figures() const;

 private:
  // The content of a packet about one column of one series.
  struct Entry {
    std::shared_ptr<Account> account;
    Column column;
    double amount;
    double total;
  };
  struct Connection {
    std::string path;
    uint64_t last_read = 0;  // number of the packet
  };
  struct Packet {
    uint64_t number = 0;  // in the order of sending
    size_t hash = 0;
    size_t size = 0;
    std::shared_ptr<Connection> connection;  // of the try that is under way, or delivered it
    bool delivered = false;
    bool settled = false;
    std::vector<Entry> entries;
  };
  using PacketPtr = std::shared_ptr<Packet>;

  PacketPtr Record(const char* bytes, size_t size, size_t hash) METRICS_REQUIRES(mutex_);
  void RecordSeries(const Reading& reading, int64_t timestamp, Packet& packet)
      METRICS_REQUIRES(mutex_);
  void RecordColumn(const std::shared_ptr<Account>& account, Column column, double value,
                    int64_t timestamp, Packet& packet) METRICS_REQUIRES(mutex_);
  void CheckStranger(const Reading& reading) METRICS_REQUIRES(mutex_);
  void Settle(Packet& packet, Fate fate) METRICS_REQUIRES(mutex_);
  void SettleUnread(Packet& packet) METRICS_REQUIRES(mutex_);

  Report& report_;
  mutable METRICS::Mutex mutex_;
  std::unordered_map<std::string, std::shared_ptr<Account>> accounts_ METRICS_GUARDED_BY(mutex_);
  std::unordered_map<int, std::shared_ptr<Connection>> connections_
      METRICS_GUARDED_BY(mutex_);  // by the sender's descriptor
  std::map<std::thread::id, PacketPtr> current_
      METRICS_GUARDED_BY(mutex_);  // the packet that each thread sends, if it is not out
  std::unordered_multimap<size_t, PacketPtr> under_way_
      METRICS_GUARDED_BY(mutex_);  // by hash: sent and not read
  std::map<std::string, bool> ended_
      METRICS_GUARDED_BY(mutex_);  // agents by path, and whether they drained
  std::map<std::string, int64_t> last_flush_ METRICS_GUARDED_BY(mutex_);  // by tenant
  uint64_t next_number_ METRICS_GUARDED_BY(mutex_) = 1;
  Figures figures_ METRICS_GUARDED_BY(mutex_);
};

}  // namespace tidegate::stress
