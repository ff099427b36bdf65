/* Export and linkage macros of the xkl public interface. */
#ifndef XKL_EXPORT_H
#define XKL_EXPORT_H

/* XKL_API marks every exported function. The shared library is built with
 * hidden symbols, so only declarations carrying XKL_API are visible.
 * Define XKL_STATIC when linking the static variant on Windows. */
#if defined(_WIN32) || defined(__CYGWIN__)
#  if defined(XKL_STATIC)
#    define XKL_API
#  elif defined(XKL_BUILDING)
#    define XKL_API __declspec(dllexport)
#  else
#    define XKL_API __declspec(dllimport)
#  endif
#elif defined(__GNUC__) || defined(__clang__)
#  define XKL_API __attribute__((visibility("default")))
#else
#  define XKL_API
#endif

#ifdef __cplusplus
#  define XKL_EXTERN_C_BEGIN extern "C" {
#  define XKL_EXTERN_C_END }
#else
#  define XKL_EXTERN_C_BEGIN
#  define XKL_EXTERN_C_END
#endif

#endif /* XKL_EXPORT_H */
