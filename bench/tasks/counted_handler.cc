// A handler that counts its requests by method and status.

#include <prometheus/counter.h>

#include <string>

#include "task.h"

class Handler {
 public:
  explicit Handler(prometheus::Registry& registry)
      : requests_(prometheus::BuildCounter()
                      .Name("requests_total")
                      .Help("requests by method and status")
                      .Register(registry)) {}

  int Serve(const std::string& method) {
    const int status = method == "get" ? 200 : 405;
    requests_.Add({{"method", method}, {"status", std::to_string(status)}}).Increment();
    return status;
  }

 private:
  prometheus::Family<prometheus::Counter>& requests_;
};

void RunTask(prometheus::Registry& registry) {
  Handler handler(registry);
  for (const char* const method : {"get", "get", "put"}) handler.Serve(method);
}
