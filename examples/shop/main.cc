// shop [SOCKET_PATH] [--port N] [--database FILE]: a small web shop that tells its metrics to the
// agent at SOCKET_PATH. Ends at SIGINT or SIGTERM.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "shop.h"

int main(int argc, char** argv) {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);  // before the first thread, so that all have it

  tidegate::Options metrics_options{"shop"};
  shop::ShopOptions options;
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    if (argument == "--port" && i + 1 < argc) {
      options.port = std::atoi(argv[++i]);
    } else if (argument == "--database" && i + 1 < argc) {
      options.database = argv[++i];
    } else {
      metrics_options.socket_path = argument;
    }
  }
  tidegate::Metrics metrics(metrics_options);
  metrics.AddProcessMetrics();
  try {
    shop::Shop shop(metrics, options);
    shop.store().Deliver(1, "lamp", 10);
    shop.store().Deliver(2, "chair", 1);
    std::printf("shop: http://127.0.0.1:%d/products/1\n", shop.port());
    std::fflush(stdout);
    int signal = 0;
    sigwait(&ends, &signal);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "shop: %s\n", error.what());
    return 1;
  }
}
