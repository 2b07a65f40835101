// custom_environment [SOCKET_PATH]: environment objects of your own, for a service whose settings
// and machine are not known when it is compiled.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "example.h"

namespace {

// Settings that a configuration service would give; here the environment does.
class Settings : public tidegate::MConfigerImplBase {
 public:
  Settings() {
    account_id = FromEnvironment("SERVICE_ACCOUNT", "none");
    project_id = FromEnvironment("SERVICE_PROJECT", "none");
  }

  // A provider that has a connection or a thread of its own opens and ends it in these two.
  void Start() override { std::printf("settings: started\n"); }
  void Stop() override { std::printf("settings: stopped\n"); }

  // Asked when the first registry of a tenant is made, on the tenant's flush thread. It must
  // not call the client nor wait for long.
  std::pair<bool, int> GetTenantInterval(const std::string& tenant) override {
    return {true, tenant == "examples" ? 1 : 10};
  }
  std::string GetSinkName() override { return {}; }

 private:
  static std::string FromEnvironment(const char* name, const char* otherwise) {
    const char* const text = std::getenv(name);
    return text != nullptr ? text : otherwise;
  }
};

// A machine that tells its tags and where its agent listens. `DummyVendor` answers the rest.
class Machine : public METRICS::DummyVendor {
 public:
  explicit Machine(std::string socket_path) : socket_path_(std::move(socket_path)) {
    ImmutableTags() = {{"host", "host-17"}};    // on every metric
    RewritableTags() = {{"cluster", "north"}};  // unless a registry has its own
  }

  std::string GetPSM() override { return "examples.custom"; }
  // Asked at each connect, so an agent may move.
  std::string GetSenderOutPath() override { return socket_path_; }
  bool EnableMonitor() override { return false; }

 private:
  const std::string socket_path_;
};

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);  // an agent that goes away must not end the service
  tidegate::SetLogLevel(tidegate::LogLevel::kError);
  METRICS::MetricClient client;
  client.Init(std::make_unique<Settings>(),
              std::make_unique<Machine>(example::OptionsOf("custom", argc, argv).socket_path));

  METRICS::MetricRegistryCfg registry = example::Registry("custom");
  registry.tags = {{"cluster", "south"}};
  METRICS::MetricInstanceCfg definition;
  definition.name = "starts";
  const auto starts = client.CreateMetric(registry, definition);
  example::Require(starts.code);
  starts.metric->Emit({}, METRICS::Add(1));

  client.FlushAndExit();
  std::printf(
      "look for: custom.starts.delta_counter with the tags cluster=south and host=host-17\n");
}
