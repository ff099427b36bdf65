/* Error texts of the xkl_ extension functions.
 *
 * The xkl_ functions never report through the thread's error handler and
 * never end the process, whatever the error mode: they return a status
 * (0, or a negative XK_Sts... code of xk_error.h) or a null pointer, and
 * store a sentence that says what went wrong in a per-thread text. */
#ifndef XKL_XKL_STATUS_H
#define XKL_XKL_STATUS_H

#include "xkl_export.h"

XKL_EXTERN_C_BEGIN

/* The text of the calling thread's last xkl_ failure ("" when none since the
 * thread began or since xkl_clear_error). Valid until the thread's next xkl_
 * call; never null. */
XKL_API const char *xkl_last_error(void);

/* Forgets the calling thread's last failure text. */
XKL_API void xkl_clear_error(void);

XKL_EXTERN_C_END

#endif /* XKL_XKL_STATUS_H */
