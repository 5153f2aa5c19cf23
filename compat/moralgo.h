/*
 * moralgo.h: the one function libmorbase imports from the product's companion
 * library libmoralgo.
 *
 * The stand-in built from compat/moralgo.c computes 32-bit FNV-1a over the
 * bytes of the string (offset basis 0x811C9DC5, prime 0x01000193). A real
 * libmoralgo computes its own hash; libmorbase only needs the value to be a
 * stable function of the string within one installation.
 */
#ifndef MORALGO_H
#define MORALGO_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Returns a 32-bit hash of the NUL-terminated string s; 0x811C9DC5 for null. */
__attribute__((visibility("default"))) uint32_t qel_str_hash_a(const char *s);

#ifdef __cplusplus
}
#endif

#endif
