// prefork [SOCKET_PATH]: a server that forks its workers. Threads do not survive a fork, so each
// child begins anew with the client that it inherited: AtFork, then Init. All of them report the
// same series; the agent gives the points of each process a tag of their own, `slot`.

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>

#include "example.h"

namespace {

using METRICS::BoundSeries;
using METRICS::Incr;
using METRICS::MetricClient;

constexpr int kChildren = 3;

BoundSeries BindServed(MetricClient& client) {
  METRICS::MetricInstanceCfg definition;
  definition.name = "served";
  BoundSeries served;
  example::Require(served.Bind(example::MakeMetric(client, "prefork", definition), {}, Incr(0)));
  return served;
}

// The life of a child, which ends with its last flush.
void Serve(MetricClient& client, int argc, char** argv) {
  client.AtFork();
  example::Start(client, argc, argv);
  BoundSeries served = BindServed(client);
  for (int i = 0; i < 100; ++i) {
    served.Emit(1);
  }
  served = BoundSeries();
  client.FlushAndExit();
}

}  // namespace

int main(int argc, char** argv) {
  MetricClient client;
  example::Start(client, argc, argv);
  BoundSeries served = BindServed(client);
  served.Emit(1);

  std::array<pid_t, kChildren> children{};
  for (int i = 0; i < kChildren; ++i) {
    children[static_cast<size_t>(i)] = ::fork();
    if (children[static_cast<size_t>(i)] == 0) {
      served = BoundSeries();  // the inherited handle is the parent's
      Serve(client, argc, argv);
      ::_exit(0);
    }
  }
  int failed = 0;
  for (const pid_t child : children) {
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || status != 0) ++failed;
  }
  served = BoundSeries();
  client.FlushAndExit();
  std::printf(
      "look for: rate prefork.served.rate{slot=0} to {slot=3}, three of them 100 and one,\n"
      "          that of the parent, 1; children that failed: %d\n",
      failed);
  return failed;
}
