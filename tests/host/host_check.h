/* The check macro of the C host programs: report the failed condition and
 * end main with status 1. */
#ifndef MORBASE_HOST_CHECK_H
#define MORBASE_HOST_CHECK_H

#include <stdio.h>

#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond);                             \
            return 1;                                                                              \
        }                                                                                          \
    } while (0)

#endif
