/*
 * qel_xmsg.h: the key/value message and its packed wire form.
 *
 * A message is a reference-counted bag of entries whose keys and values are
 * byte strings with explicit lengths. All entries live back to back in one
 * growable entry area, so packing is a 16-byte header plus one copy of the
 * area, and unpacking is one copy plus a rebuild of the lookup chains. Keys
 * may repeat (lookups see the newest first); deleting only marks entries.
 * The first entry of every message is its creator entry: key "creator", value
 * the creator's name with its NUL. It is read with qel_xmsg_get_creator only:
 * qel_xmsg_get never finds it and iteration starts after it.
 *
 * Ownership: qel_xmsg_new, qel_xmsg_dup and qel_xmsg_unpack return a message
 * with count 1; the caller releases it with qel_xmsg_release. Keys and values
 * are copied into the entry area. Pointers returned by qel_xmsg_get,
 * qel_xmsg_get_creator and held in an iterator are borrowed: valid until the
 * next qel_xmsg_add (which may move the area) or the last release. The buffer
 * of qel_xmsg_pack_aux is the caller's, released with free(). An iterator is
 * freed by the qel_xmsg_next call that returns null.
 *
 * Results: counts and sizes as stated per function; -1 or null for a failure.
 * No function of this family logs or exits when memory runs out: every
 * allocation failure is returned as -1 or null.
 *
 * Null and out-of-range arguments: a null message gives the failure value of
 * the function (-1, null or 0) with no side effect.
 *
 * Thread safety: none. A message must not be used by two threads at once,
 * and its reference count is a plain integer.
 *
 * Decisions of this implementation:
 *  - The entry area never exceeds QEL_XMSG_MAX_AREA bytes, so that a packed
 *    size always fits the int result of qel_xmsg_pack; growth doubles and
 *    stops at that limit, and an entry that does not fit fails with -1.
 *  - qel_xmsg_unpack accepts, beyond the length and check-value tests, only
 *    an area whose entries tile it exactly: every entry header and body lies
 *    inside the used bytes, the key length is at least 1, the pad count is the
 *    one the entry's sizes imply and the byte after each value is 0. Anything
 *    else is refused with null, so that no later lookup or iteration can read
 *    outside the area.
 *  - A failed qel_xmsg_dup frees the half-built copy before returning null.
 *  - qel_xmsg_add accepts a key or value that points into the message's own
 *    entries (a value copied under another key), also when the area moves.
 *  - qel_xmsg_get with a cursor at or beyond the used bytes stores 0 into the
 *    cursor and returns null.
 *  - The creator of a message with no entry (its area could not be
 *    allocated in qel_xmsg_new) is null, and its qel_xmsg_nelem is the entry
 *    count 0 minus 1 in 32 bits, 0xFFFFFFFF. The first entry added to it is
 *    at offset 0 and takes the creator entry's place.
 */
#ifndef QEL_XMSG_H
#define QEL_XMSG_H

#include <stddef.h>
#include <stdint.h>

#include "qel_export.h"

QEL_BEGIN_DECLS

/* Number of bucket chains of a message. */
#define QEL_XMSG_BUCKETS 16
/* Size of the packed header in front of the entry area. */
#define QEL_XMSG_HEADER_SIZE 16
/* Size of an entry's fixed header (next, value length, key length, flags, pad). */
#define QEL_XMSG_ENTRY_HEADER_SIZE 12
/* The entry flag that marks an entry deleted. */
#define QEL_XMSG_DELETED 0x01u
/* The largest entry area this library builds. */
#define QEL_XMSG_MAX_AREA 0x7FFFFFECu

/* The message object. Every field is private to the library; the record is
 * public only so that its layout is fixed for both ABIs. */
typedef struct _qel_xmsg_st {
    int32_t nref;                       /* private: reference count */
    uint32_t bucket[QEL_XMSG_BUCKETS];  /* private: offset of the newest entry per bucket, 0 ends */
    uint32_t count;                     /* private: entries ever added, creator and deleted included */
    uint32_t used;                      /* private: bytes of the entry area in use */
    uint32_t capacity;                  /* private: bytes allocated for the entry area */
    unsigned char *area;                /* private: the entries, back to back */
} qel_xmsg;

/* An entry's fixed header inside the entry area (host byte order). The key
 * bytes, the value bytes, one NUL and `pad` zero bytes follow it. */
typedef struct _qel_xmsg_entry_st {
    uint32_t next;   /* offset of the next older entry of the bucket, 0 ends */
    uint32_t vlen;   /* value length */
    uint16_t klen;   /* key length, 1..65535 */
    uint8_t flags;   /* QEL_XMSG_DELETED or 0 */
    uint8_t pad;     /* zero bytes after the NUL, 0..3 */
} qel_xmsg_entry;

/* The packed header (host byte order; little-endian on the reference
 * platform). The entry area, `used` bytes, follows it. */
typedef struct _qel_xmsg_packed_st {
    char magic[4];   /* "XMSG"; not examined when unpacking */
    uint32_t check;  /* x33 hash seeded with 5318 over the entry area */
    uint32_t count;  /* entry count as stored in the message */
    uint32_t used;   /* length of the entry area */
} qel_xmsg_packed;

/* An iterator over the live entries after the creator entry. Read-only for
 * the caller. */
typedef struct _qel_xmsg_iter_st {
    const char *key;     /* read-only: key bytes in the entry area */
    const char *value;   /* read-only: value bytes in the entry area */
    uint32_t klen;       /* read-only: key length */
    uint32_t vlen;       /* read-only: value length */
    qel_xmsg *msg;       /* read-only: the message iterated */
    uint32_t next;       /* private: offset of the entry after the current one */
} qel_xmsg_iter;

/* Creates a message whose creator entry holds `creator` with its NUL
 * ("(null)" when creator is null). The value is the first (length mod 65536)
 * + 1 bytes of the name, so a name of 65536 bytes or more is cut short. The
 * first growth of the area is to 64 bytes. If the area cannot be allocated
 * the message is returned without a creator entry.
 * Returns: the message with count 1; null if the object cannot be allocated. */
QEL_API qel_xmsg *qel_xmsg_new(const char *creator);

/* Adds 1 to the reference count.
 * Returns: msg; null for a null message. */
QEL_API qel_xmsg *qel_xmsg_retain(qel_xmsg *msg);

/* Subtracts 1 from the count and frees the message when the count falls
 * below 1. A null message is ignored. */
QEL_API void qel_xmsg_release(qel_xmsg *msg);

/* Returns: the reference count; 0 for a null message. */
QEL_API int32_t qel_xmsg_nref(const qel_xmsg *msg);

/* Appends an entry (duplicates are never merged). The area grows to 64 bytes
 * first, then doubles, each time only when the entry would not fit; a failed
 * growth leaves the message unchanged. A value of length 0 is allowed.
 * Returns: 0; -1 for a null message, key or value, a key length of 0, or a
 * growth that failed or would pass QEL_XMSG_MAX_AREA. */
QEL_API int qel_xmsg_add(qel_xmsg *msg, const void *key, uint16_t klen, const void *value,
                         uint32_t vlen);

/* Marks deleted every entry of that key in its bucket, also ones already
 * deleted. Nothing is removed: the entry count, used bytes and packed form
 * keep the entries.
 * Returns: the number of entries marked; 0 for a null message or key or a key
 * length of 0. */
QEL_API int qel_xmsg_del(qel_xmsg *msg, const void *key, uint16_t klen);

/* Finds the newest live entry of key. With a cursor holding a non-zero
 * offset the search continues from there instead of the bucket head. On a
 * match the cursor receives the offset of the next older entry of the chain
 * (0 when none remains: passing 0 in again starts over at the newest), and
 * *vlen the value length. At the end of the chain the cursor receives 0.
 * vlen and cursor may be null.
 * Returns: the value bytes inside the entry area (borrowed); null if no live
 * entry matches, or for a null message or key or a key length of 0. */
QEL_API void *qel_xmsg_get(const qel_xmsg *msg, const void *key, uint16_t klen, uint32_t *vlen,
                           uint32_t *cursor);

/* Returns: the creator entry's value, NUL-terminated (borrowed); null for a
 * null message or one without entries. */
QEL_API const char *qel_xmsg_get_creator(const qel_xmsg *msg);

/* Returns: the entry count minus 1, modulo 2^32 (deleted entries counted,
 * the creator entry not); 0 for a null message. */
QEL_API uint32_t qel_xmsg_nelem(const qel_xmsg *msg);

/* Starts an iteration, oldest entry first, at the first live entry after the
 * creator entry. Adding to the message while iterating may move the area.
 * Returns: a new iterator; null if no entry is live, for a null message, or
 * if the iterator cannot be allocated. */
QEL_API qel_xmsg_iter *qel_xmsg_first(qel_xmsg *msg);

/* Moves the iterator to the next live entry.
 * Returns: it; null at the end, after freeing it; null for a null iterator. */
QEL_API qel_xmsg_iter *qel_xmsg_next(qel_xmsg_iter *it);

/* Copies the message: bucket heads, counts and the whole capacity of the
 * entry area.
 * Returns: the copy with count 1; null for a null message or if an
 * allocation fails. */
QEL_API qel_xmsg *qel_xmsg_dup(const qel_xmsg *msg);

/* Returns: the packed size, used bytes + 16; 0 for a null message. */
QEL_API uint32_t qel_xmsg_pack_size(const qel_xmsg *msg);

/* Writes the packed form: header, then the entry area as held in memory.
 * Returns: the bytes written (the packed size); -1 for a null message or
 * buffer or a buffer smaller than the packed size. */
QEL_API int qel_xmsg_pack(const qel_xmsg *msg, void *buf, size_t size);

/* Packs into a new buffer of exactly the packed size, which the caller
 * releases with free(). *size (if size is not null) receives the packed size.
 * Returns: the buffer; null for a null message or if it cannot be
 * allocated. */
QEL_API void *qel_xmsg_pack_aux(const qel_xmsg *msg, uint32_t *size);

/* Rebuilds a message from its packed form. The magic is not examined. The
 * area gets no spare room (capacity = used bytes), and every bucket chain is
 * rebuilt, deleted entries linked and still marked, so that packing the
 * result gives the same bytes.
 * Returns: a message with count 1; null if len is below 16 or below used
 * bytes + 16, if the check value differs, if the entries do not tile the area
 * exactly, or if an allocation fails. */
QEL_API qel_xmsg *qel_xmsg_unpack(const void *buf, size_t len);

/* Prints every live entry after the creator entry to standard output as
 * "[key] => [value]\n", each with its own length. */
QEL_API void qel_xmsg_debug(const qel_xmsg *msg);

QEL_END_DECLS

#endif /* QEL_XMSG_H */
