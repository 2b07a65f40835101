// What libFuzzer calls: hands each input to the one target that is linked in.

#include "fuzz/target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tidegate::fuzz::Targets().front().run(data, size);
  return 0;
}
