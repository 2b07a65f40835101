// multi_field [SOCKET_PATH]: numbers that belong together travel as one row.

#include <chrono>
#include <cstdio>

#include "example.h"

int main(int argc, char** argv) {
  tidegate::Metrics metrics(example::OptionsOf("db", argc, argv));

  const tidegate::GaugeField open("open");
  const tidegate::CounterField queries("queries");
  const tidegate::TimerField latency("latency");
  const auto pool = metrics.Row("pool", {"database"}, {open, queries, latency});
  for (int i = 0; i < 10; ++i) {
    pool.Emit({open(3 + i % 2), queries(1), latency(std::chrono::microseconds(250 + 10 * i))},
              {{"database", "orders"}});
  }
  // A row carries the fields that have a value to report.
  pool.Emit({open(1)}, {{"database", "users"}});

  std::printf(
      "look for: multi_field db.pool{database=orders,slot=0} with open=4, queries=10 and the ten\n"
      "          numbers of latency; db.pool{database=users} with open=1 alone\n");
}
