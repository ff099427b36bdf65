#include "frame/last_error.h"

#include <cstdarg>
#include <cstdio>

#include "xkl/xkl_status.h"

namespace xk {
namespace {

struct LastError {
  char text[256];
};
thread_local LastError lastError{};

// What the thread's guard recorded (guards do not nest).
thread_local int guardStatus = 0;
thread_local char guardText[200];

int recordReport(int status, const char *func, const char *message, const char *, int) {
  // Back-traces only add "called from" lines; the first real report says
  // what failed.
  if (status != XK_StsBackTrace && status != XK_StsAutoTrace && guardStatus == 0) {
    guardStatus = status < 0 ? status : XK_StsError;
    std::snprintf(guardText, sizeof guardText, "%s: %s", func != nullptr ? func : "?",
                  message != nullptr && *message != '\0' ? message : XKErrorStr(status));
  }
  return status;
}

}  // namespace

int fail(int status, const char *format, ...) {
  va_list args;
  va_start(args, format);
  std::vsnprintf(lastError.text, sizeof lastError.text, format, args);
  va_end(args);
  return status;
}

QuietReports::QuietReports()
    : handler_(XKRedirectError(recordReport)),
      mode_(XKGetErrMode()),
      status_(XKGetStatus()) {
  XKSetErrMode(XK_ErrorModeParent);
  XKSetStatus(XK_StsOk);
  guardStatus = 0;
  guardText[0] = '\0';
}

QuietReports::~QuietReports() {
  XKRedirectError(handler_);
  XKSetErrMode(mode_);
  XKSetStatus(status_);
}

bool QuietReports::failed() const { return guardStatus != 0 || XKGetStatus() < 0; }
int QuietReports::status() const {
  if (guardStatus != 0) return guardStatus;
  const int s = XKGetStatus();
  return s < 0 ? s : 0;
}
const char *QuietReports::text() const { return guardText; }

}  // namespace xk

extern "C" {

const char *xkl_last_error(void) { return xk::lastError.text; }
void xkl_clear_error(void) { xk::lastError.text[0] = '\0'; }

}  // extern "C"
