/*
 * qel_result.h: the library's 32-bit result-code family.
 *
 * Status functions return 0 or -1, predicates 1 or 0; the operations that
 * return a code of this family say so in their header. Some of them pass a
 * platform error number (EBUSY, a pthread_* result) through unchanged beside
 * these codes; such results are plain small numbers.
 */
#ifndef QEL_RESULT_H
#define QEL_RESULT_H

#include <stdint.h>

#include "qel_export.h"

/* A result code: 0 or one of QEL_E_*, or a platform error number where the
 * operation says so. */
typedef uint32_t qel_result;

/* XX(name, value, meaning) */
#define QEL_RESULT_MAP(XX)                                                       \
    XX(QEL_OK, 0x00000000u, "success")                                           \
    XX(QEL_E_FAIL, 0x84CE0001u, "the operation, or the system call beneath it, failed") \
    XX(QEL_E_INVALIDARG, 0x84CE0002u, "a required argument is null, empty or out of range") \
    XX(QEL_E_TIMEOUT, 0x84CE000Du, "a timed wait expired")                       \
    XX(QEL_E_NOMEM, 0x84CE0014u, "an allocation failed")                         \
    XX(QEL_E_NOTFOUND, 0x84CE0015u, "a shared library or symbol could not be found") \
    XX(QEL_E_EXISTS, 0x84CE0016u, "the object already exists")                   \
    XX(QEL_E_BADFORMAT, 0x84CE0018u, "a string failed syntax validation")

#define QEL_OK 0x00000000u
#define QEL_E_FAIL 0x84CE0001u
#define QEL_E_INVALIDARG 0x84CE0002u
#define QEL_E_TIMEOUT 0x84CE000Du
#define QEL_E_NOMEM 0x84CE0014u
#define QEL_E_NOTFOUND 0x84CE0015u
#define QEL_E_EXISTS 0x84CE0016u
#define QEL_E_BADFORMAT 0x84CE0018u

#endif /* QEL_RESULT_H */
