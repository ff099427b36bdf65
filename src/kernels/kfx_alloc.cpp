// 32-byte aligned scratch memory of the kernel layer.
//
// The request is enlarged by the alignment plus one pointer word, the
// address is rounded up to the next multiple of 32 past that word, and the
// raw address is kept in the word just before the aligned block, where
// kfxFree finds it. On a 32-bit host this is the classic 36-byte enlargement;
// here a pointer takes 8 bytes, so the block grows by 40.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "xkl/kfx.h"

namespace {
constexpr std::size_t kAlign = 32;
constexpr std::size_t kExtra = kAlign + sizeof(void *);
}  // namespace

extern "C" {

void *kfxMalloc(int size) {
  if (size < 0) return nullptr;
  void *raw = std::malloc(static_cast<std::size_t>(size) + kExtra);
  if (raw == nullptr) return nullptr;
  const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(raw) + sizeof(void *);
  const std::uintptr_t aligned = (first + kAlign - 1) & ~static_cast<std::uintptr_t>(kAlign - 1);
  void *block = reinterpret_cast<void *>(aligned);
  std::memcpy(static_cast<char *>(block) - sizeof(void *), &raw, sizeof(void *));
  return block;
}

void kfxFree(void *ptr) {
  if (ptr == nullptr) return;
  void *raw;
  std::memcpy(&raw, static_cast<char *>(ptr) - sizeof(void *), sizeof(void *));
  std::free(raw);
}

}  // extern "C"
