#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "metrics/metric_collector_factory.h"
#include "metrics/packet_sender.h"
#include "util/atomic_shared_ptr.h"
#include "util/metric_common.h"
#include "util/metric_error_code.h"
#include "util/stoppable_thread.h"

namespace METRICS {

class MetricClient;
class MetricEncoderBase;

/// The flush engine of one tenant: a thread "ms_sender" that sleeps to the next wall-clock multiple
/// of the tenant's interval, counted from the epoch, and has the collectors that are due encoded
/// and sent. Leaf classes add the transport.
///
/// Threads: the flush thread owns `last_flush_ts_`, `work_state_`, the encoder and the socket while
/// it lives; others touch them only after joining it. `state_` is the one stop signal: the thread
/// polls it at least every 200 ms while it sleeps, and not at all while it flushes.
/// A flush that overruns its period misses the boundaries that pass meanwhile; none is reported
/// twice, and what the cells gathered goes out at the next one.
class MetricSender : public StoppableThread, public PacketSender {
 public:
  /// What the sender reports on itself. The handles are bound by `InitStat`, stay null without self
  /// monitoring and are read by the flush thread; the counts are of the packet that is about to be
  /// sent.
  struct Statistic {
    AtomicSharedPtr<MetricCollectorItem> send_item;
    AtomicSharedPtr<MetricCollectorItem> drop_item;
    AtomicSharedPtr<MetricBasicData> send_bytes;
    AtomicSharedPtr<MetricBasicData> drop_bytes;
    AtomicSharedPtr<MetricBasicData> send_metrics;
    AtomicSharedPtr<MetricBasicData> send_series;
    AtomicSharedPtr<MetricBasicData> drop_metrics;
    AtomicSharedPtr<MetricBasicData> drop_series;
    int16_t metric_num = 0;
    int16_t series_num = 0;
  };

  /// What the flush thread last did; the numbers stand in the log.
  enum class WorkState : uint8_t {
    kIdle = 0,      ///< the loop was not entered
    kSleeping = 1,  ///< on its way to a boundary
    kSlept = 2,     ///< the boundary is taken, its flush not begun
    kWorking = 3,   ///< flushing
  };

  /// Starts the flush thread, which waits for the leaf class's `Init`. Where the system has none to
  /// give, `thread_` is not joinable and the sender is of no use.
  MetricSender(const std::string& tenant, MetricClient* client);
  /// REQUIRES: the leaf class has joined the thread.
  virtual ~MetricSender();
  MetricSender(const MetricSender&) = delete;
  MetricSender& operator=(const MetricSender&) = delete;

  /// Gives the encoder its identity, makes the socket and lets the flush thread go.
  virtual ReturnCode Init() = 0;
  /// Stops without a last flush and closes the socket. Waits for the thread. Safe twice.
  virtual void Exit();
  /// For the child of a fork: forgets the thread.
  virtual void AtFork() = 0;
  /// Delivers one packet of `len` bytes, or drops it; the caller cannot tell.
  virtual void SendToSocket(char* buf, int len) = 0;
  /// Makes and connects the socket, closing an old one.
  virtual ReturnCode SocketInit();

  /// Body of the flush thread.
  void Send(std::string tenant);
  /// Sleeps to the next boundary of `interval` seconds and puts it into `flush_ts`. False when the
  /// sleep was given up. REQUIRES: `interval` is 1 to 2147483.
  bool AdjustTime(const std::string& tenant, long& flush_ts, int& left_ms, const int& interval);
  /// Length of a slice of sleep for a period, both in milliseconds.
  static int AdjustSleepStep(int interval_ms);
  /// One flush of what is due at `last_flush_ts_`. False: the thread must end. Where memory runs
  /// out it ends early, and what it had not drained goes out with the next one.
  bool DoPackAndSend();
  void DoNothing() {}
  void SendPacket(const FinishedPacket& packet) final;
  void CountLostSeries() final;
  /// Binds the handles of `statistic_` to the self monitor's series and marks these as alive. Runs
  /// at each flush.
  void InitStat();
  /// Marks the series of sent or dropped packets as alive: its cells are fed directly.
  void UpdateStatTime(bool success);
  /// Stops with a last flush of everything, on the calling thread. REQUIRES: `state_` was set to
  /// SHUTDOWN before.
  void FlushAndExit();

  Statistic statistic_;
  const std::string tenant_;
  std::atomic<int32_t> interval_{30};  ///< seconds; the running thread keeps what it started with
  std::atomic<bool> interval_known_{false};  ///< the settings have been asked for `interval_`
  MetricClient* client_;                     ///< not owned
  std::shared_ptr<MetricCollectorFactory> collector_factory_;
  std::shared_ptr<MetricEncoderBase> encoder_;
  WorkState work_state_ = WorkState::kIdle;
  std::atomic<bool> monitor_enabled_;  ///< report on itself
  int32_t sock_ = -1;
  // For `MetricClient::DebugString`, which any thread may call.
  std::atomic<int64_t> flushed_ts_{0};  ///< boundary of the last whole flush; 0: none yet
  std::atomic<uint64_t> packets_delivered_{0};
  std::atomic<uint64_t> packets_dropped_{0};

 protected:
  /// Keeps the socket out of programs that the service executes.
  void CloseOnExec() const;
  void CloseSocket();
  /// Stops the thread, or abandons it where it does not exist, with what it was changing.
  void StopFlushing();
  /// Whether this is a fork's teardown, and a thread of the parent may have been changing what its
  /// `Init` or a flush changes.
  bool WorkInterrupted() const;
  /// What the leaf classes' `AtFork` share.
  void ForgetParent();
  /// Gives the encoder whom it sends for.
  void IdentifyEncoder();
  /// Accounts for a packet that was delivered or dropped, and for the time that it took.
  void AccountPacket(bool delivered, int bytes, int64_t started_micros);

 private:
  void FetchTenantInterval(const std::string& tenant);
  void WarnOfIntervals(const std::string& tenant);
  /// Sleeps to the next boundary and stores it in `flush_ts`, with a line if one was missed.
  bool SleepToBoundary(const std::string& tenant, int64_t& flush_ts, int& left_ms, int period_ms,
                       int step_ms);
  void Flush();
  void Loop(const std::string& tenant, int period_ms);
  void FlushRest();
};

}  // namespace METRICS
