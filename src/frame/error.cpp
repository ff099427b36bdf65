// Status, error modes, handlers and the status texts.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/context.h"
#include "frame/report.h"

namespace xk {

bool statusFailed() { return context().status < 0; }

namespace {

constexpr const char *kTerminateText = "XKL:\nterminating the application";
constexpr size_t kBoxBodyMax = 1000;
constexpr size_t kBoxCaptionMax = 100;

bool isTrace(int status) { return status == XK_StsBackTrace || status == XK_StsAutoTrace; }

// Shared by the whole process and unprotected: the text of the last unknown
// code asked for.
char unknownCodeText[64];

// Host form of a message box: the caption and body go to standard error. When
// a person is at the terminal (standard input and standard error are both
// terminals) the box's question is asked; otherwise the default button is
// taken. Returns true for the first button (Yes / OK).
bool askBox(const char *caption, const char *body, bool defaultAnswer) {
  std::fprintf(stderr, "%s\n%s\n", caption, body);
  if (!(isatty(STDIN_FILENO) && isatty(STDERR_FILENO))) {
    std::fflush(stderr);
    return defaultAnswer;
  }
  for (;;) {
    std::fputs("[y/n] ", stderr);
    std::fflush(stderr);
    int c = std::getchar();
    int rest = c;
    while (rest != '\n' && rest != EOF) rest = std::getchar();
    if (c == 'y' || c == 'Y') return true;
    if (c == 'n' || c == 'N') return false;
    if (c == EOF) return defaultAnswer;
  }
}

}  // namespace
}  // namespace xk

using xk::context;

extern "C" {

int XKError(int status, const char *funcName, const char *context_, const char *file,
            int line) {
  if (!xk::isTrace(status)) {
    XKSetStatus(status);
    if (status == XK_StsOk) return 0;
  }
  XKErrorCallback handler = context().handler;
  if (handler == nullptr) handler = XKWinError;
  return handler(status, funcName, context_, file, line);
}

int XKGetStatus(void) { return context().status; }
void XKSetStatus(int status) { context().status = status; }
int XKGetErrMode(void) { return context().errMode; }
void XKSetErrMode(int mode) { context().errMode = mode; }

XKErrorCallback XKRedirectError(XKErrorCallback handler) {
  xk::XKContext &ctx = context();
  XKErrorCallback previous = ctx.handler;
  ctx.handler = handler != nullptr ? handler : XKWinError;
  return previous;
}

XKErrorCallback XKSetStdError(void) { return XKRedirectError(XKStdError); }
XKErrorCallback XKSetWinError(void) { return XKRedirectError(XKWinError); }

const char *XKErrorStr(int status) {
  switch (status) {
    case XK_StsOk: return "No Error";
    case XK_StsBackTrace: return "Backtrace";
    case XK_StsError: return "Unknown error";
    case XK_StsInternal: return "Internal error (bad state)";
    case XK_StsNoMem: return "Out of memory";
    case XK_StsBadArg: return "Bad argument";
    case XK_StsBadFunc: return "Unsupported function";
    case XK_StsNoConv: return "Iteration convergence failed";
    case XK_StsAutoTrace: return "Autotrace call";
    case XK_StsOverflow: return "Overflow occured";
    case XK_StsUnderflow: return "Underflow occured";
    default: break;
  }
  std::snprintf(xk::unknownCodeText, sizeof xk::unknownCodeText, "Unknown %s code %d",
                status < 0 ? "error" : "status", status);
  return xk::unknownCodeText;
}

int XKStdError(int status, const char *funcName, const char *context_, const char *file,
               int line) {
  xk::XKContext &ctx = context();
  if (ctx.errMode == XK_ErrorModeSilent) {
    if (status != XK_StsBackTrace) ctx.status = status;
    return status;
  }
  if (xk::isTrace(status)) {
    std::fputs("\tcalled from\n", stderr);
  } else {
    ctx.status = status;
    std::fprintf(stderr, "XKL Error: %s \n\tin function\n", XKErrorStr(status));
  }
  if (line > 0 || file != nullptr)
    std::fprintf(stderr, "\t[%s:%d]", file != nullptr ? file : "(null)", line);
  std::fprintf(stderr, ":%s", funcName != nullptr ? funcName : "<unknown>");
  if (context_ != nullptr) {
    if (status == XK_StsAutoTrace)
      std::fprintf(stderr, "(%s)", context_);
    else
      std::fprintf(stderr, "():\n\t%s", context_);
  }
  std::fputs("\n", stderr);
  if (ctx.errMode != XK_ErrorModeLeaf) return status;
  std::fprintf(stderr, "XKL: %s\n", "terminating the application");
  std::fflush(stderr);
  std::exit(1);
}

int XKWinError(int status, const char *funcName, const char *context_, const char *file,
               int line) {
  const int mode = context().errMode;
  if (mode == XK_ErrorModeSilent) return status;
  // A mode outside the three known ones shows no box.
  if (mode != XK_ErrorModeLeaf && mode != XK_ErrorModeParent) return status;

  const char *func = funcName != nullptr ? funcName : "<unknown>";
  const char *ctxText = context_ != nullptr ? context_ : "";
  const char *fileText = file != nullptr ? file : "";
  if (line < 0) line = 0;
  const char *suffix = mode == XK_ErrorModeLeaf
                           ? "\n\nErrMode=XK_ErrorModeLeaf\n\nTerminate the application?"
                           : "\n\nErrMode=XK_ErrorModeParent\n\nContinue?";

  char body[xk::kBoxBodyMax + 1];
  const char *format = status == XK_StsBackTrace   ? "called from\n[%s:%d]:%s():\n %s%s"
                       : status == XK_StsAutoTrace ? "called from\n[%s:%d]:%s(%s)%s"
                                                   : "in function\n[%s:%d]:%s():\n%s%s";
  std::snprintf(body, sizeof body, format, fileText, line, func, ctxText, suffix);

  // The caption names the stored status, so every box of a back-trace chain
  // carries the text of the failure that started it.
  char caption[xk::kBoxCaptionMax + 1];
  std::snprintf(caption, sizeof caption, "XKL Error: %s", XKErrorStr(XKGetStatus()));

  if (mode == XK_ErrorModeParent) {
    // OK continues (the default), Cancel terminates.
    if (!xk::askBox(caption, body, true)) xk::fatalExit(xk::kTerminateText);
  } else {
    // Yes terminates (the default), No returns like the parent mode.
    if (xk::askBox(caption, body, true)) xk::fatalExit(xk::kTerminateText);
  }
  return status;
}

int XKNulDevReport(int status, const char *, const char *, const char *, int) {
  if (context().errMode == XK_ErrorModeLeaf) std::exit(1);
  return status;
}

}  // extern "C"
