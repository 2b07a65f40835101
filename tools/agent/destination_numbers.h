#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "agent/health.h"

namespace tidegate::agent {

// Why a point does not reach a database. The queue was full; the server refused it; the form of the
// database cannot carry it; it was left when the agent ended; there was no memory for it; the spool
// was full, or damaged; it came after later ones of its series had been sent; there was no room for
// its series, or no free name, or its time is too far ahead.
enum class ForwardDrop {
  kFull,
  kRejected,
  kEmpty,
  kShutdown,
  kMemory,
  kSpoolFull,
  kSpoolDamaged,
  kLate,
  kSeries,
};
inline constexpr size_t kForwardDrops = 9;
inline constexpr std::string_view kForwardDropReasons[kForwardDrops] = {
    "full",       "rejected",      "empty", "shutdown", "memory",
    "spool_full", "spool_damaged", "late",  "series"};

// The numbers of one destination, as the page of metrics shows them with the label `destination`.
//
// Threads: as Health, of which each object is a part from its making on. Outlives all use of that.
class DestinationNumbers : public NumberList {
 public:
  DestinationNumbers(Health* health, std::string name) : name_(std::move(name)) {
    health->Add("destination", name_, this);
  }

  const std::string& name() const { return name_; }

  HealthNumber& Dropped(ForwardDrop reason) { return dropped[static_cast<size_t>(reason)]; }
  const HealthNumber& Dropped(ForwardDrop reason) const {
    return dropped[static_cast<size_t>(reason)];
  }

 private:
  static constexpr HealthNumber::Type kGauge = HealthNumber::Type::kGauge;
  static constexpr HealthNumber::Type kCounter = HealthNumber::Type::kCounter;

  const std::string name_;

 public:
  HealthNumber held_points{this, kGauge, "tidegate_agent_forward_held_points",
                           "Points that are held until their order is sure."};
  HealthNumber held_bytes{this, kGauge, Health::kHeldBytes,
                          "Bytes of those, and of what is known of their series."};
  HealthNumber queue_points{this, kGauge, "tidegate_agent_forward_queue_points",
                            "Points that wait to be forwarded."};
  HealthNumber queue_bytes{this, kGauge, Health::kWaitingBytes, "Bytes of those."};
  HealthNumber forwarded_points{this, kCounter, "tidegate_agent_forwarded_points_total",
                                "Points that the database took."};
  ReasonNumbers<kForwardDrops> dropped{
      this, Health::kUnforwarded, "Points that never reached the database.", kForwardDropReasons};
  HealthNumber retried_points{this, kCounter, "tidegate_agent_forward_retried_points_total",
                              "Points whose sending failed and is tried again."};
  HealthNumber batches{this, kCounter, "tidegate_agent_forward_batches_total",
                       "Requests that the database took."};
  HealthNumber spool_points{this, kGauge, "tidegate_agent_forward_spool_points",
                            "Points that wait in the spool."};
  HealthNumber spool_bytes{this, kGauge, "tidegate_agent_forward_spool_bytes",
                           "Bytes of its files."};
  HealthNumber spool_failures{this, kCounter, "tidegate_agent_forward_spool_failures_total",
                              "Times that the spool could not be opened, written or flushed."};
  HealthNumber spool_damaged{this, kCounter, "tidegate_agent_forward_spool_damaged_total",
                             "Files and parts of files in the spool that could not be read."};
};

}  // namespace tidegate::agent
