// Failure texts of the xkl_ extension functions, and a guard that runs the
// library's own reporting functions on their behalf without letting a report
// reach the application's handler or end the process.
#pragma once

#include "xkl/xk_error.h"

namespace xk {

// Stores `status` and a printf-style text as the thread's last xkl_ failure
// and returns `status`, so that a failing path reads `return fail(...)`.
int fail(int status, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;

// While alive, the thread's reports go to a recorder instead of the
// application's handler, in parent mode, with the status cleared; the
// handler, mode and status are restored on destruction. `failed()` tells
// whether a report arrived, and `text()` holds the first one's function name
// and message.
class QuietReports {
 public:
  QuietReports();
  ~QuietReports();
  QuietReports(const QuietReports &) = delete;
  QuietReports &operator=(const QuietReports &) = delete;

  bool failed() const;
  int status() const;
  const char *text() const;

 private:
  XKErrorCallback handler_;
  int mode_;
  int status_;
};

}  // namespace xk
