#include "agent/status_report.h"

#include <unistd.h>

#include <chrono>
#include <optional>
#include <utility>

#include "agent/api_query.h"
#include "agent/metric_list.h"
#include "agent/series_list.h"

namespace tidegate::agent {
namespace {

using METRICS::WriteGuard;

constexpr size_t kTopMetrics = 10;

std::string HostName() {
  char name[256] = {};
  if (gethostname(name, sizeof(name) - 1) != 0) return {};
  return name;
}

void AppendLabels(const Health::Sample& sample, JsonWriter* json) {
  json->Key("labels").Open('{');
  if (!sample.owner.empty()) json->Key(sample.owner).Text(sample.owner_value);
  if (!sample.label.empty()) json->Key(sample.label).Text(sample.label_value);
  json->Close('}');
}

void AppendRefusal(const std::optional<DestinationStatus::Refusal>& refusal, JsonWriter* json) {
  if (!refusal) return json->Null();
  json->Open('{');
  json->Key("text").Text(refusal->text);
  json->Key("status").Integer(refusal->status);
  json->Key("at_ms").Integer(refusal->at_ms);
  json->Close('}');
}

void AppendLimits(JsonWriter* json) {
  json->Key("limits").Open('{');
  json->Key("limit").Unsigned(ApiQuery::kMaxLimit);
  json->Key("ids").Unsigned(ApiQuery::kMaxIds);
  json->Key("search_bytes").Unsigned(ApiQuery::kMaxSearchBytes);
  json->Key("services").Unsigned(ConnectedServices::kMost);
  json->Key("collisions").Unsigned(StatusReport::kMaxCollisions);
  json->Close('}');
}

}  // namespace

int64_t NowMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

StatusReport::StatusReport(const Health* health, SeriesTable* table,
                           const ConnectedServices* services, Destinations destinations,
                           std::chrono::seconds history)
    : health_(health),
      table_(table),
      services_(services),
      destinations_(std::move(destinations)),
      history_(history),
      drops_(health) {}

void StatusReport::SetSettings(const Texts& settings) {
  Texts next = settings;
  const WriteGuard lock(mutex_);
  settings_.swap(next);
}

void StatusReport::AddCollision(const std::string& text) {
  const WriteGuard lock(mutex_);
  collisions_.push_back({text.substr(0, kMaxTextBytes), NowMilliseconds()});
  if (collisions_.size() > kMaxCollisions) collisions_.pop_front();
}

void StatusReport::Look() { drops_.Look(NowMilliseconds()); }

void StatusReport::Append(std::string* out) {
  JsonWriter json(out);
  json.Open('{');
  AppendAgent(&json);
  AppendServices(&json);
  AppendDestinations(&json);
  AppendDrops(&json);
  json.Key("top_metrics").Open('[');
  for (const MetricList::Row& row : TopMetrics(table_, kTopMetrics)) {
    if (!json.Item(kMaxAnswerBytes / 2, [&] { AppendMetric(row, &json); })) break;
  }
  json.Close(']');
  AppendKept(&json);
  AppendRules(&json);
  AppendNumbers(&json);
  json.Key("history_s").Integer(history_.count());
  AppendLimits(&json);
  json.Close('}');
}

void StatusReport::AppendAgent(JsonWriter* json) const {
  const auto uptime =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_);
  json->Key("agent").Open('{');
  json->Key("version").Text(TIDEGATE_VERSION);
  json->Key("pid").Integer(getpid());
  json->Key("host").Text(HostName());
  json->Key("uptime_s").Integer(uptime.count());
  json->Key("now_ms").Integer(NowMilliseconds());
  json->Close('}');
}

void StatusReport::AppendRules(JsonWriter* json) const {
  json->Key("rules").Open('[');
  for (const RuleStatus& rule : health_->rules.Statuses()) {
    json->Open('{');
    json->Key("name").Text(rule.name);
    json->Key("action").Text(rule.action);
    json->Key("matched").Unsigned(rule.matched);
    json->Key("dropped").Unsigned(rule.dropped);
    json->Key("idle_s").Integer(rule.idle.count());
    json->Close('}');
  }
  json->Close(']');
}

void StatusReport::AppendServices(JsonWriter* json) const {
  json->Key("services").Open('[');
  for (const ConnectedServices::Service& service : services_->All()) {
    json->Open('{');
    json->Key("tenant").Text(service.tenant);
    json->Key("account_id").Text(service.account_id);
    json->Key("project_id").Text(service.project_id);
    json->Key("name").Text(service.name);
    json->Key("pid").Integer(service.pid);
    json->Key("slot");
    if (service.slot == kNoSlot) {
      json->Null();
    } else {
      json->Unsigned(service.slot);
    }
    json->Key("last_packet_ms").Integer(service.last_packet_ms);
    json->Key("points_per_s").Number(service.points_per_second);
    json->Key("interval_s").Integer(service.interval);
    json->Close('}');
  }
  json->Close(']');
}

void StatusReport::AppendDestinations(JsonWriter* json) const {
  json->Key("destinations").Open('[');
  for (const DestinationStatus& status : destinations_()) {
    json->Open('{');
    json->Key("name").Text(status.name);
    json->Key("type").Text(status.type);
    json->Key("url").Text(status.url);
    json->Key("up").Bool(status.up);
    json->Key("since_ms").Integer(status.since_ms);
    json->Key("queue_points").Unsigned(status.queue_points);
    json->Key("queue_bytes").Unsigned(status.queue_bytes);
    json->Key("queue_limit_points").Unsigned(status.queue_limit_points);
    json->Key("spool_points").Unsigned(status.spool_points);
    json->Key("spool_bytes").Unsigned(status.spool_bytes);
    json->Key("forwarded_points").Unsigned(status.forwarded_points);
    json->Key("retried_points").Unsigned(status.retried_points);
    json->Key("dropped").Open('{');
    for (size_t reason = 0; reason < kForwardDrops; ++reason) {
      json->Key(kForwardDropReasons[reason]).Unsigned(status.dropped[reason]);
    }
    json->Close('}');
    json->Key("last_refusal");
    AppendRefusal(status.last_refusal, json);
    json->Close('}');
  }
  json->Close(']');
}

void StatusReport::AppendDrops(JsonWriter* json) const {
  json->Key("drops").Open('[');
  for (const DropWatch::Drop& drop : drops_.All()) {
    json->Open('{');
    json->Key("number").Text(drop.sample.name);
    json->Key("reason").Text(drop.sample.label_value);
    if (!drop.sample.owner.empty()) json->Key(drop.sample.owner).Text(drop.sample.owner_value);
    json->Key("count").Unsigned(drop.sample.value);
    json->Key("last_ms").Integer(drop.last_ms);
    json->Key("help").Text(drop.help);
    json->Key("href").Text(drop.href);
    json->Close('}');
  }
  json->Close(']');
}

void StatusReport::AppendNumbers(JsonWriter* json) const {
  json->Key("numbers").Open('[');
  health_->ForEach([json](const Health::Sample& sample) {
    json->Open('{');
    json->Key("name").Text(sample.name);
    AppendLabels(sample, json);
    json->Key("value").Unsigned(sample.value);
    json->Close('}');
  });
  json->Close(']');
}

void StatusReport::AppendKept(JsonWriter* json) const {
  const WriteGuard lock(mutex_);
  json->Key("collisions").Open('[');
  for (const Collision& collision : collisions_) {
    json->Open('{');
    json->Key("text").Text(collision.text);
    json->Key("at_ms").Integer(collision.at_ms);
    json->Close('}');
  }
  json->Close(']');
  json->Key("settings").Texts(settings_);
}

}  // namespace tidegate::agent
