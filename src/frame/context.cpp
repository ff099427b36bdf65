// Per-thread context: created on a thread's first call, released at its end.
#include "frame/context.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace xk {
namespace {

constexpr const char *kNoContextText = "XKlib. Problem to allocate memory for TLS XKL context.";

// Owns the thread's record. The destructor runs when the thread ends (for the
// main thread: at process exit) and frees the record only; the subsystems'
// tables are released by their own functions.
struct ContextSlot {
  XKContext *record = nullptr;
  ~ContextSlot() {
    std::free(record);
    record = nullptr;
  }
};

thread_local ContextSlot tlsSlot;

XKContext *createRecord() {
  auto *record = static_cast<XKContext *>(std::calloc(1, sizeof(XKContext)));
  if (record == nullptr) fatalExit(kNoContextText);
  record->handler = XKWinError;
  return record;
}

}  // namespace

XKContext &context() {
  XKContext *record = tlsSlot.record;
  if (record == nullptr) {
    record = createRecord();
    tlsSlot.record = record;
  }
  return *record;
}

void fatalExit(const char *text) {
  std::fputs(text, stderr);
  std::fputc('\n', stderr);
  std::fflush(stderr);
  // Ends at once, without exit handlers or thread-local destructors.
  _exit(3);
}

}  // namespace xk
