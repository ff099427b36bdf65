/* Version record, two-dimensional tables and file helpers. */
#ifndef XKL_XK_FRAME_H
#define XKL_XK_FRAME_H

#include <stdio.h>
#include "xkl_export.h"

XKL_EXTERN_C_BEGIN

/* Constant record returned by XKGetLibVersion; never change or free it. */
typedef struct XKLibVersion {
  int major;
  int minor;
  int build;
  const char *name;            /* "xklm5.dll" */
  const char *version;         /* "Version 4.1 Beta Release" */
  const char *internalVersion; /* "[4.00.18, 01/21/99]" */
  const char *buildDate;       /* "Jan 26 1999" */
  const char *kind;            /* "DLL" */
} XKLibVersion;

XKL_API const XKLibVersion *XKGetLibVersion(void);

/* Two-dimensional tables: one block holding `rows` row pointers followed by
 * the rows. Every row starts on a 32-byte boundary and holds `cols` elements
 * rounded up to whole 32-byte lines (8 floats or 16 shorts). Returns null
 * (status XK_StsNoMem) when the block cannot be allocated. Release with
 * XKFree2 (or free). */
XKL_API float **XKsAlloc2(int rows, int cols);
XKL_API short **XKwAlloc2(int rows, int cols);
XKL_API void XKFree2(void *table);

/* Opens and closes files through the library's own runtime, so that an
 * application built against another runtime can hand streams to the file
 * functions of the library. */
XKL_API FILE *XKOpenFile(const char *name, const char *mode);
XKL_API int XKCloseFile(FILE *stream);

XKL_EXTERN_C_END

#endif /* XKL_XK_FRAME_H */
