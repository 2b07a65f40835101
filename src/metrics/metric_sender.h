#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "metrics/flush_thread.h"
#include "metrics/packet_sender.h"
#include "metrics/sender_accounts.h"
#include "metrics/sender_socket.h"
#include "util/metric_error_code.h"

namespace METRICS {

struct ClientParts;
class MetricCollectorFactory;
class MetricEncoderBase;

/// The flush engine of one tenant: its thread "ms_sender" has the collectors that are due at a
/// boundary encoded and sent. Leaf classes add the transport.
///
/// Threads: the flush thread owns the boundary, the encoder and the socket while it lives; others
/// touch them only after joining it. What the cells gather during a flush, or while boundaries are
/// missed, goes out with the next one.
class MetricSender : public FlushThread,
                     public SenderAccounts,
                     public SenderSocket,
                     public PacketSender {
 public:
  /// Starts the flush thread, which waits for the leaf class's `Init`. Where the system has none to
  /// give, `thread_` is not joinable and the sender is of no use. `client` is not owned and
  /// outlives the sender. REQUIRES: it has its configer and `sender_reports_`.
  MetricSender(const std::string& tenant, ClientParts* client);
  /// Ends the process unless the leaf class has joined the thread.
  virtual ~MetricSender();

  /// Gives the encoder its identity, makes the socket and lets the flush thread go. 66 when no
  /// descriptor can be had; the sender then never flushes.
  virtual ReturnCode Init() = 0;
  /// Stops without a last flush and closes the socket. Waits for the thread. Safe twice.
  virtual void Exit();
  /// For the child of a fork: forgets the thread.
  virtual void AtFork() = 0;
  /// Delivers one packet of `len` bytes, or drops it; the caller cannot tell.
  virtual void SendToSocket(char* buf, int len) = 0;
  /// Makes the socket anew, closing an old one. 66 when no descriptor can be had. Does nothing
  /// here.
  virtual ReturnCode SocketInit();

  /// Body of the flush thread; `tenant` is a copy of its own.
  void Send(std::string tenant);
  /// One flush of what is due at `last_flush_ts_`. False: the thread must end. Where memory runs
  /// out it ends early, and what it had not drained goes out with the next one.
  bool DoPackAndSend();
  /// Not called by the library.
  void DoNothing() {}
  void SendPacket(const FinishedPacket& packet) final;
  void CountLostSeries() final;
  /// Stops with a last flush of everything, on the calling thread. REQUIRES: `state_` was set to
  /// SHUTDOWN before.
  void FlushAndExit();

  std::atomic<bool> interval_known_{false};  ///< the settings have been asked for `interval_`
  std::shared_ptr<MetricCollectorFactory> collector_factory_;  ///< the client's
  std::shared_ptr<MetricEncoderBase> encoder_;                 ///< of this sender alone

 protected:
  /// Gives the encoder whom it sends for.
  void IdentifyEncoder();
  /// What the leaf classes' `Init` end with: publishes what it has made to the flush thread, which
  /// flushes from here on.
  void EnterService();
  /// What the leaf classes' `AtFork` share.
  void ForgetParent();

 private:
  /// False if the sender was stopped before.
  bool FetchTenantInterval(const std::string& tenant);
  void Flush();
  void FlushRest();
  /// Stops the thread, or abandons it where it does not exist, with what it was changing.
  void StopFlushing();
};

}  // namespace METRICS
