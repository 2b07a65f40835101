// A handler that counts its requests by method and status.

#include <string>

#include "task.h"

class Handler {
 public:
  explicit Handler(tidegate::Metrics& metrics)
      : requests_(metrics.Counter("requests", {"method", "status"})) {}

  int Serve(const std::string& method) {
    const int status = method == "get" ? 200 : 405;
    requests_.Add(1, {{"method", method}, {"status", status}});
    return status;
  }

 private:
  tidegate::Counter requests_;
};

void RunTask(tidegate::Metrics& metrics) {
  Handler handler(metrics);
  for (const char* const method : {"get", "get", "put"}) handler.Serve(method);
}
