#include "kernels/kfx_error.h"

namespace kfx {
namespace {
// One status word per thread, so a kernel failure in one thread never leaks
// into another thread's call.
thread_local KFXErrorReport tlsReport = {0, nullptr, nullptr, nullptr, 0};
}  // namespace

int report(int status, const char *func, const char *message, const char *module, int line) {
  tlsReport.status = status;
  tlsReport.funcName = func;
  tlsReport.message = message;
  tlsReport.file = module;
  tlsReport.line = line;
  return status;
}

int status() { return tlsReport.status; }

}  // namespace kfx

extern "C" {

int kfxGetStatus(void) { return kfx::tlsReport.status; }

void kfxSetStatus(int status) { kfx::tlsReport.status = status; }

const KFXErrorReport *kfxGetErrorReport(void) { return &kfx::tlsReport; }

}  // extern "C"
