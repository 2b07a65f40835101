// prefork [SOCKET_PATH]: a server that forks its workers. Threads do not survive a fork, so each
// child begins anew with the client that it inherited: AtFork, then Init.

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <string>

#include "example.h"

namespace {

using METRICS::BoundSeries;
using METRICS::Incr;
using METRICS::MetricClient;

constexpr int kChildren = 3;

BoundSeries BindServed(MetricClient& client, const std::string& process) {
  METRICS::MetricInstanceCfg definition;
  definition.name = "served";
  definition.tag_names = {"process"};
  BoundSeries served;
  example::Require(served.Bind(example::MakeMetric(client, "prefork", definition),
                               {{"process", process}}, Incr(0)));
  return served;
}

// The life of a child, which ends with its last flush.
void Serve(MetricClient& client, int number, int argc, char** argv) {
  client.AtFork();
  example::Start(client, argc, argv);
  BoundSeries served = BindServed(client, "child-" + std::to_string(number));
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
  BoundSeries served = BindServed(client, "parent");
  served.Emit(1);

  std::array<pid_t, kChildren> children{};
  for (int i = 0; i < kChildren; ++i) {
    children[static_cast<size_t>(i)] = ::fork();
    if (children[static_cast<size_t>(i)] == 0) {
      served = BoundSeries();  // what a child inherited is the parent's
      Serve(client, i, argc, argv);
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
      "look for: rate prefork.served.rate{process=child-0} 100, the same of child-1 and\n"
      "          child-2, and {process=parent} 1; children that failed: %d\n",
      failed);
  return failed;
}
