// Unpacks arbitrary bytes as a packed message; whatever unpacks must stay
// inside its area under lookups, iteration, deletion, duplication, growth and
// re-packing, and must pack to a stable image. Each input is tried as it is
// and resealed (a right check value, with the used bytes as given and as the
// input's length implies), so that mutations reach the entry checks.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qel_xmsg.h"

#include "base/internal.h"

namespace {

void check(bool ok)
{
    if (!ok)
        __builtin_trap();
}

std::string pack(const qel_xmsg *m)
{
    std::string out(qel_xmsg_pack_size(m), '\0');
    check(qel_xmsg_pack(m, out.data(), out.size()) == static_cast<int>(out.size()));
    return out;
}

void exercise(const uint8_t *data, size_t size)
{
    qel_xmsg *m = qel_xmsg_unpack(data, size);
    if (m == nullptr)
        return;
    const char *area = reinterpret_cast<const char *>(m->area);
    const char *end = area + m->used;
    if (const char *creator = qel_xmsg_get_creator(m))
        check(creator >= area && creator + strlen(creator) < end);

    // Every live entry is found again by its key; values lie inside the area.
    uint32_t live = 0;
    for (qel_xmsg_iter *it = qel_xmsg_first(m); it != nullptr; it = qel_xmsg_next(it)) {
        check(it->key >= area && it->value + it->vlen < end && it->value[it->vlen] == '\0');
        ++live;
        bool found = false;
        uint32_t cursor = 0, vlen = 0;
        for (int guard = 0; guard <= 100000; ++guard) {
            auto *v = static_cast<const char *>(
                qel_xmsg_get(m, it->key, static_cast<uint16_t>(it->klen), &vlen, &cursor));
            if (v == nullptr)
                break;
            check(v >= area && v + vlen < end);
            found = found || v == it->value;
            if (cursor == 0)
                break;
        }
        check(found);
    }

    // Stable wire image: packing, unpacking and packing again agree.
    std::string once = pack(m);
    qel_xmsg *again = qel_xmsg_unpack(once.data(), once.size());
    check(again != nullptr && pack(again) == once);
    qel_xmsg_release(again);

    qel_xmsg *d = qel_xmsg_dup(m);
    check(d != nullptr && pack(d) == once);
    if (live > 0) {
        qel_xmsg_iter *it = qel_xmsg_first(d);
        std::string key(it->key, it->klen);
        free(it);
        check(qel_xmsg_del(d, key.data(), static_cast<uint16_t>(key.size())) >= 1);
        check(qel_xmsg_get(d, key.data(), static_cast<uint16_t>(key.size()), nullptr, nullptr) == nullptr);
    }
    check(qel_xmsg_add(d, "fuzz", 4, data, static_cast<uint32_t>(size < 64 ? size : 64)) == 0);
    std::string grown = pack(d);
    qel_xmsg *u = qel_xmsg_unpack(grown.data(), grown.size());
    check(u != nullptr && pack(u) == grown);
    check(qel_xmsg_nelem(u) == qel_xmsg_nelem(m) + 1);
    qel_xmsg_release(u);
    qel_xmsg_release(d);
    qel_xmsg_release(m);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    exercise(data, size);
    if (size < 16)
        return 0;
    std::string sealed(reinterpret_cast<const char *>(data), size);
    uint32_t used;
    memcpy(&used, &sealed[12], 4);
    for (int pass = 0; pass < 2; ++pass) {
        if (pass == 1)
            used = static_cast<uint32_t>(size - 16);
        else if (used > size - 16)
            continue;
        uint32_t check = qel::detail::hash33(sealed.data() + 16, used);
        memcpy(&sealed[4], &check, 4);
        memcpy(&sealed[12], &used, 4);
        exercise(reinterpret_cast<const uint8_t *>(sealed.data()), size);
    }
    return 0;
}
