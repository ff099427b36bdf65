/* Status codes, error modes and error reporting.
 *
 * Every thread has its own status, error mode and handler. The status is
 * sticky: a failure stays stored until the application stores XK_StsOk with
 * XKSetStatus, and while it is negative the argument-checking functions of the
 * library return their failure value. */
#ifndef XKL_XK_ERROR_H
#define XKL_XK_ERROR_H

#include "xkl_export.h"

XKL_EXTERN_C_BEGIN

/* Status codes: 0 is success, negative values are failures. */
#define XK_StsOk          0
#define XK_StsBackTrace  -1  /* failure passed up from a called routine (never stored) */
#define XK_StsError      -2
#define XK_StsInternal   -3
#define XK_StsNoMem      -4
#define XK_StsBadArg     -5
#define XK_StsBadFunc    -6
#define XK_StsNoConv     -7
#define XK_StsAutoTrace  -8  /* trace code (never stored by XKError) */
#define XK_StsOverflow  -20
#define XK_StsUnderflow -21

/* Error modes. */
#define XK_ErrorModeLeaf   0  /* report, then terminate (the message-box handler asks first) */
#define XK_ErrorModeParent 1  /* report and return the status */
#define XK_ErrorModeSilent 2  /* only record the status */

/* Error handler: status, name of the failed function, message ("" for
 * back-trace reports), source module name, line. Any of the texts may be
 * null. XKError returns the handler's result. */
typedef int (*XKErrorCallback)(int status, const char *funcName,
                               const char *context, const char *file, int line);

/* Stores a failure as the thread's status (trace codes excepted) and hands it
 * to the thread's handler. XK_StsOk is stored and returns 0 at once. */
XKL_API int XKError(int status, const char *funcName, const char *context,
                    const char *file, int line);

XKL_API int XKGetStatus(void);
XKL_API void XKSetStatus(int status);          /* stores any value, unchecked */
XKL_API int XKGetErrMode(void);
XKL_API void XKSetErrMode(int mode);           /* stores any value, unchecked */

/* Installs a handler (null installs XKWinError); returns the previous one. */
XKL_API XKErrorCallback XKRedirectError(XKErrorCallback handler);
XKL_API XKErrorCallback XKSetStdError(void);   /* installs XKStdError */
XKL_API XKErrorCallback XKSetWinError(void);   /* installs XKWinError */

/* Text of a status code. Unknown codes are formatted into one buffer shared by
 * the whole process, overwritten by the next such call. */
XKL_API const char *XKErrorStr(int status);

/* The three handlers. XKStdError writes to standard error; XKWinError is the
 * message-box handler (on hosts without message boxes it writes the box to
 * standard error and asks on the terminal when there is one); XKNulDevReport
 * writes nothing. */
XKL_API int XKStdError(int status, const char *funcName, const char *context,
                       const char *file, int line);
XKL_API int XKWinError(int status, const char *funcName, const char *context,
                       const char *file, int line);
XKL_API int XKNulDevReport(int status, const char *funcName, const char *context,
                           const char *file, int line);

XKL_EXTERN_C_END

#endif /* XKL_XK_ERROR_H */
