// One libFuzzer body for both pattern-file readers: read records until the
// reader fails; each record read must write back to exactly the bytes it
// was read from (with the isHead word of a lone pattern, 1), and a failed
// read must leave the store as it was.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "xkl.h"

template <class Read, class Write, class Count, class FreeAll>
int fuzzReader(const uint8_t *data, size_t size, Read read, Write write, Count count, FreeAll freeAll) {
  static const bool silent = [] {
    XKSetErrMode(XK_ErrorModeSilent);
    return true;
  }();
  (void)silent;
  if (size == 0) return 0;
  FILE *in = fmemopen(const_cast<uint8_t *>(data), size, "rb");
  if (in == nullptr) return 0;
  for (;;) {
    XKSetStatus(XK_StsOk);
    const long from = std::ftell(in);
    const int id = read(in);
    if (count() == 0) {
      if (id != -1) __builtin_trap();  // a failed read must return -1
      break;
    }
    if (count() != 1) __builtin_trap();
    const long to = std::ftell(in);
    char *out = nullptr;
    size_t outSize = 0;
    FILE *mem = open_memstream(&out, &outSize);
    write(mem, id);
    std::fclose(mem);
    // The record's bytes, with isHead as the store sets it for its head.
    uint8_t *expect = static_cast<uint8_t *>(std::malloc(static_cast<size_t>(to - from)));
    std::memcpy(expect, data + from, static_cast<size_t>(to - from));
    const uint8_t one[4] = {1, 0, 0, 0};
    std::memcpy(expect + 8, one, 4);
    if (outSize != static_cast<size_t>(to - from) || std::memcmp(out, expect, outSize) != 0) __builtin_trap();
    std::free(expect);
    std::free(out);
    if (freeAll() != 0) __builtin_trap();
  }
  std::fclose(in);
  return 0;
}
