/*
 * qel_export.h: the export macro and C linkage brackets used by every public
 * header of libmorbase. Nothing else in the library is visible outside it.
 */
#ifndef QEL_EXPORT_H
#define QEL_EXPORT_H

#if defined(__GNUC__)
#define QEL_API __attribute__((visibility("default")))
#else
#define QEL_API
#endif

#ifdef __cplusplus
#define QEL_BEGIN_DECLS extern "C" {
#define QEL_END_DECLS }
#else
#define QEL_BEGIN_DECLS
#define QEL_END_DECLS
#endif

#if defined(__GNUC__)
#define QEL_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define QEL_PRINTF(fmt, args)
#endif

#endif /* QEL_EXPORT_H */
