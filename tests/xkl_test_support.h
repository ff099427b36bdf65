// Helpers shared by the test programs: a handler that records reports, and a
// fixture that gives each test a clean, non-terminating error state.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "xkl.h"

namespace xkltest {

struct Report {
  int status;
  std::string func, context, file;
  int line;
};

// Reports seen by RecordingHandler on this thread.
inline std::vector<Report> &reports() {
  thread_local std::vector<Report> seen;
  return seen;
}

inline int RecordingHandler(int status, const char *func, const char *context,
                            const char *file, int line) {
  reports().push_back({status, func ? func : "<null>", context ? context : "<null>",
                       file ? file : "<null>", line});
  return status;
}

// Parent mode with the recording handler, status cleared, before and after.
class ReportingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousHandler_ = XKRedirectError(RecordingHandler);
    previousMode_ = XKGetErrMode();
    XKSetErrMode(XK_ErrorModeParent);
    XKSetStatus(XK_StsOk);
    reports().clear();
  }
  void TearDown() override {
    XKRedirectError(previousHandler_);
    XKSetErrMode(previousMode_);
    XKSetStatus(XK_StsOk);
  }

 private:
  XKErrorCallback previousHandler_ = nullptr;
  int previousMode_ = 0;
};

// Releases the main thread's per-thread feature buffers when the program's
// tests are done, so that the leak check sees only real leaks. Register it
// with ::testing::AddGlobalTestEnvironment in programs that compute features.
class ReleaseFeatureTables : public ::testing::Environment {
 public:
  void TearDown() override {
    XKFreeCepsTbls();
    XKFreePreemphasizeTbls();
  }
};

}  // namespace xkltest
