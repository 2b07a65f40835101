#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tidegate/metric_tag.h"

namespace tidegate {

/// What the library asks of the platform that a service runs on: the tags that the platform
/// insists on, the identity of the service and the address of the local agent.
///
/// Implemented by the application, or left out: `METRICS::DummyVendor` describes a plain machine.
/// Ownership: the client deletes a vendor that `METRICS::MetricClient::Init` was given. A vendor
/// named by a `MetricRegistryCfg` is only borrowed for the call. Threads: `ImmutableTags`,
/// `RewritableTags` and `GetSenderOutPath` are called from any thread that makes a registry and
/// from the flush threads, possibly at the same time; `GetPSM` and `EnableMonitor` only from
/// `Init`. None of them may call the client: senders are made, and stopped, under the lock of the
/// table of senders. Operations that say "not called by the library" are there for the
/// application's own use.
class VendorInterface {
 public:
  virtual ~VendorInterface() = default;

  /// Not called by the library.
  virtual bool Initialized() = 0;
  /// Not called by the library.
  virtual void Init() = 0;
  /// Not called by the library.
  virtual bool Check(std::vector<std::string> values) = 0;
  /// Not called by the library.
  virtual int GetRunEnv() = 0;
  /// Tags that every registry carries and that nothing overrides. Not validated.
  /// The reference must stay good for the life of the vendor.
  virtual std::vector<MetricTag>& ImmutableTags() = 0;
  /// Tags that every registry carries unless its own tags name the same key. As above.
  virtual std::vector<MetricTag>& RewritableTags() = 0;
  /// Not called by the library.
  virtual std::vector<std::string> TagKeys() = 0;
  /// Not called by the library.
  virtual std::string GetIDC() = 0;
  /// Identity of the service. If it is not empty, packets carry it as their "project_id".
  virtual std::string GetPSM() = 0;
  /// Not called by the library.
  virtual bool HasConfiger() = 0;
  /// Not called by the library.
  virtual std::string GetConfigerUrl() = 0;
  /// Path of the agent's Unix domain socket, asked for at each (re)connect. At most 107 bytes
  /// are used.
  virtual std::string GetSenderOutPath() = 0;
  /// Not called by the library.
  virtual int GetSenderOutType() = 0;
  /// Whether the library is to report its own metrics; `CoreInitCfg::force_self_monitor` goes
  /// before it.
  virtual bool EnableMonitor() = 0;
};

/// The answers of a plain machine with a local agent: no identity, no self monitoring, and the tags
/// that it was made with. Base of `METRICS::DummyVendor` and `StaticVendor`.
///
/// Constant after construction, and so safe from any thread.
class PlainVendor : public VendorInterface {
 public:
  /// Where the agent of a plain machine listens.
  static constexpr char kSocketPath[] = "/opt/tmp/sock/metric_seqpacket.sock";

  // The answers, as `VendorInterface` asks.
  bool Initialized() override { return true; }
  void Init() override {}
  bool Check(std::vector<std::string> /*values*/) override { return true; }
  int GetRunEnv() override { return 0; }
  std::vector<MetricTag>& ImmutableTags() override { return immutable_tags_; }
  std::vector<MetricTag>& RewritableTags() override { return rewritable_tags_; }
  std::vector<std::string> TagKeys() override { return {}; }
  std::string GetIDC() override { return {}; }
  std::string GetPSM() override { return {}; }
  bool HasConfiger() override { return false; }
  std::string GetConfigerUrl() override { return {}; }
  std::string GetSenderOutPath() override { return kSocketPath; }
  int GetSenderOutType() override { return 0; }
  bool EnableMonitor() override { return false; }

 protected:
  /// With no tags.
  PlainVendor() = default;
  /// With these, which are not validated.
  PlainVendor(std::vector<MetricTag> immutable_tags, std::vector<MetricTag> rewritable_tags)
      : immutable_tags_(std::move(immutable_tags)), rewritable_tags_(std::move(rewritable_tags)) {}

 private:
  std::vector<MetricTag> immutable_tags_;
  std::vector<MetricTag> rewritable_tags_;
};

}  // namespace tidegate
