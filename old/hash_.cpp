// The unprefixed xhash_* interface: the chained table of containers/hash.cpp
// under its old names, with the same default hash (seed 5318) and compare.
//
// The one difference is the out-of-memory line, which names this module by its
// path: the compiler's path of this file with the extension removed, so the
// text ends in "old/hash_". The calls that allocate therefore run their own
// instance of the shared body; the others forward.

#include "qel_xhash.h"

#include <cstddef>

#include "base/internal.h"
#include "containers/hash_impl.h"

namespace {

// This file's path without its extension, built at compile time.
constexpr size_t stem_length(const char *path, size_t n)
{
    for (size_t i = n; i-- > 0;) {
        if (path[i] == '.')
            return i;
        if (path[i] == '/')
            break;
    }
    return n;
}

struct ModulePath {
    char text[sizeof(__FILE__)];
};

constexpr ModulePath make_module_path()
{
    ModulePath m{};
    constexpr size_t n = stem_length(__FILE__, sizeof(__FILE__) - 1);
    for (size_t i = 0; i < n; ++i)
        m.text[i] = __FILE__[i];
    return m;
}

constexpr ModulePath kModule = make_module_path();

// Fatal allocations of the legacy interface: lower case, the module path.
struct Site {
    static void *alloc(size_t size) { return QEL_MUST_ALLOC_LC(size, kModule.text); }
    static void *calloc(size_t n, size_t size) { return QEL_MUST_CALLOC_LC(n, size, kModule.text); }
};

namespace xi = qel::xhash_internal;

} // namespace

qel_xhash *xhash_create(qel_xhash_free_fn value_free, qel_xhash_hash_fn hash)
{
    return xhash_create2(value_free, hash, xi::default_compare, 0);
}

qel_xhash *xhash_create2(qel_xhash_free_fn value_free, qel_xhash_hash_fn hash, qel_xhash_compare_fn compare,
                         uint32_t flags)
{
    return xi::create2<Site>(value_free, hash, compare, flags);
}

void xhash_destroy(qel_xhash *table)
{
    qel_xhash_destroy(table);
}

void xhash_insert(qel_xhash *table, const void *key, uint32_t key_len, void *value)
{
    xi::insert<Site>(table, key, key_len, value);
}

int xhash_search(qel_xhash *table, const void *key, uint32_t key_len, void **value)
{
    return qel_xhash_search(table, key, key_len, value);
}

int xhash_delete(qel_xhash *table, const void *key, uint32_t key_len)
{
    return qel_xhash_delete(table, key, key_len);
}

void xhash_clear(qel_xhash *table)
{
    qel_xhash_clear(table);
}

int xhash_walk(qel_xhash *table, void *context, qel_xhash_walk_fn callback)
{
    return qel_xhash_walk(table, context, callback);
}

void xhash_walk_partial(qel_xhash *table, qel_xhash_cookie *cookie, void *context, qel_xhash_walk_fn callback)
{
    qel_xhash_walk_partial(table, cookie, context, callback);
}

uint32_t xhash_count(qel_xhash *table)
{
    return qel_xhash_count(table);
}

void xhash_set_nslot(qel_xhash *table, uint32_t wanted)
{
    xi::set_nslot<Site>(table, wanted);
}

void xhash_slotinfo(qel_xhash *table, uint32_t *counters, uint32_t n)
{
    qel_xhash_slotinfo(table, counters, n);
}

uint32_t xhash_slotcount(qel_xhash *table)
{
    return qel_xhash_slotcount(table);
}

qel_xhash_cookie *xhash_cookie_create(float percent)
{
    return xi::cookie_create<Site>(percent);
}

void xhash_cookie_destroy(qel_xhash_cookie *cookie)
{
    qel_xhash_cookie_destroy(cookie);
}

void xhash_cookie_set_percent(qel_xhash_cookie *cookie, float percent)
{
    qel_xhash_cookie_set_percent(cookie, percent);
}
