#include "util/metric_data_util.h"

#include <sched.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <stdexcept>

namespace METRICS {
namespace {

constexpr int kExchangeBudget = 3;

// Reached only under contention: keeps the loop out of the inlined first exchange.
template <class Op>
void UpdateContended(std::atomic<double>& target, double seen, Op op) {
  int budget = kExchangeBudget;
  while (true) {
    while (budget > 0) {
      --budget;
      if (target.compare_exchange_strong(seen, op(seen))) {
        return;
      }
    }
    ::sched_yield();
    seen = target.load();
    budget = kExchangeBudget;
    if (target.compare_exchange_strong(seen, op(seen))) {
      return;
    }
  }
}

template <class Op>
void Update(std::atomic<double>& target, Op op) {
  double seen = target.load();
  if (!target.compare_exchange_strong(seen, op(seen))) {
    UpdateContended(target, seen, op);
  }
}

using StreamStep = int (*)(z_stream*, int);
using StreamEnd = int (*)(z_stream*);

// Runs all of `data` through an initialised zlib stream and ends it.
std::string RunStream(z_stream& stream, const std::string& data, StreamStep step, int flush,
                      StreamEnd end, const char* verb) {
  const std::unique_ptr<z_stream, StreamEnd> closer(&stream, end);
  // zlib's interface wants a mutable pointer, but does not write through it.
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  std::array<char, 32768> buffer;
  std::string out;
  int result = Z_OK;
  do {
    stream.next_out = reinterpret_cast<Bytef*>(buffer.data());
    stream.avail_out = static_cast<uInt>(buffer.size());
    result = step(&stream, flush);
    if (out.size() < stream.total_out) {
      out.append(buffer.data(), stream.total_out - out.size());
    }
  } while (result == Z_OK);
  if (result != Z_STREAM_END) {
    std::string message =
        std::string("Exception during zlib ") + verb + ": (" + std::to_string(result) + ") ";
    if (stream.msg != nullptr) {
      message += stream.msg;
    }
    throw std::runtime_error(message);
  }
  return out;
}

}  // namespace

void FetchAddD(std::atomic<double>& target, double delta) {
  Update(target, [delta](double current) { return current + delta; });
}

void FetchSubD(std::atomic<double>& target, double delta) {
  Update(target, [delta](double current) { return current - delta; });
}

unsigned long GetStatValue(std::atomic<unsigned long>& counter) {
  const unsigned long value = counter.load();
  counter.fetch_sub(value);
  return value;
}

void SortNumbersFirst(double* first, double* last) {
  double* const end_of_numbers =
      std::partition(first, last, [](double value) { return !std::isnan(value); });
  std::sort(first, end_of_numbers);
}

std::string compress_string(const std::string& data, int level) {
  z_stream stream{};
  if (deflateInit(&stream, level) != Z_OK) {
    throw std::runtime_error("deflateInit failed while compressing.");
  }
  return RunStream(stream, data, &deflate, Z_FINISH, &deflateEnd, "compression");
}

std::string decompress_string(const std::string& data) {
  z_stream stream{};
  if (inflateInit(&stream) != Z_OK) {
    throw std::runtime_error("inflateInit failed while decompressing.");
  }
  return RunStream(stream, data, &inflate, Z_NO_FLUSH, &inflateEnd, "decompression");
}

}  // namespace METRICS
