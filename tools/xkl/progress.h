// Progress lines on standard error for long runs, only when it is a
// terminal (or when asked for with --verbose), never with --quiet.
#pragma once

#include <cstdio>
#include <string>

namespace xkltool {

struct Verbosity {
  bool quiet = false, verbose = false;
};
Verbosity &verbosity();
bool progressWanted();

class Progress {
 public:
  Progress(bool on, const char *what, size_t total) : on_(on), what_(what), total_(total) {}
  void step(const std::string &item) {
    ++done_;
    if (!on_) return;
    std::fprintf(stderr, "\r%s %zu/%zu %-50.50s", what_, done_, total_, item.c_str());
    std::fflush(stderr);
  }
  void done() {
    if (on_ && done_ > 0) std::fprintf(stderr, "\r%s %zu/%zu%-52s\n", what_, done_, total_, "");
  }

 private:
  bool on_;
  const char *what_;
  size_t total_, done_ = 0;
};

}  // namespace xkltool
