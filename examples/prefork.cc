// prefork [SOCKET_PATH]: a server that forks its workers. Threads do not survive a fork, so each
// child brings the metrics that it inherited into service anew: AtFork, then Init. Its handles work
// again then. All processes report the same series; the agent gives the points of each a tag of
// their own, `slot`.

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>

#include "example.h"

namespace {

constexpr int kChildren = 3;

// The life of a child, which ends with its last flush.
int Serve(tidegate::Metrics& metrics, const tidegate::BoundRate& served) {
  metrics.AtFork();
  if (!metrics.Init()) return 1;
  for (int i = 0; i < 100; ++i) {
    served.Add(1);
  }
  metrics.Stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  tidegate::Metrics metrics(example::OptionsOf("prefork", argc, argv));
  const tidegate::BoundRate served = metrics.Rate("served").With({});
  served.Add(1);

  std::array<pid_t, kChildren> children{};
  for (pid_t& child : children) {
    child = ::fork();
    // A child must not run its parent's destructors.
    if (child == 0) ::_exit(Serve(metrics, served));
  }
  int failed = 0;
  for (const pid_t child : children) {
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || status != 0) ++failed;
  }
  std::printf(
      "look for: rate prefork.served{slot=0} to {slot=3}, three of them 100 and one,\n"
      "          that of the parent, 1; children that failed: %d\n",
      failed);
  return failed;
}
