// libFuzzer target of XKsReadDTWPattern.
#include "fuzz_dtw_read.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  return fuzzReader(data, size, XKsReadDTWPattern, XKsWriteDTWPattern, XKsPatternsNumber, XKsPatternFreeAll);
}
