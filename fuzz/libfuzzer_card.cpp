#include "fuzz_card.h"
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return velt::fuzz::fuzzCard(data, size);
}
