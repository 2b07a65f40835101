#include "agent/gzip.h"

#include <zlib.h>

#include <memory>
#include <new>
#include <stdexcept>

namespace tidegate::agent {
namespace {

constexpr int kGzipWindow = 15 + 16;  // the largest window, and a gzip head in place of zlib's
constexpr int kMemoryLevel = 8;       // zlib's default

}  // namespace

std::string Gzip(std::string_view text) {
  z_stream stream = {};
  if (deflateInit2(&stream, Z_BEST_SPEED, Z_DEFLATED, kGzipWindow, kMemoryLevel,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::bad_alloc();
  }
  const std::unique_ptr<z_stream, int (*)(z_stream*)> end(&stream, deflateEnd);
  std::string packed(deflateBound(&stream, text.size()), '\0');
  // zlib only reads from next_in, whose type is older than const.
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
  stream.avail_in = static_cast<uInt>(text.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  const int result = deflate(&stream, Z_FINISH);
  packed.resize(stream.total_out);
  packed.shrink_to_fit();  // it may wait for long
  if (result != Z_STREAM_END) throw std::length_error("text is too long for gzip");
  return packed;
}

}  // namespace tidegate::agent
