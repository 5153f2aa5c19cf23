#include "qel_xmsg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "base/internal.h"
#include "config/xmsg_impl.h"
#include "support/test_util.h"

namespace {

using Bytes = std::string;
using Pairs = std::vector<std::pair<Bytes, Bytes>>;

uint32_t h33(const Bytes &b) { return qel::detail::hash33(b.data(), b.size()); }
void put32(Bytes &out, uint32_t v) { out.append(reinterpret_cast<const char *>(&v), 4); } // host order
qel_xmsg *unpack(const Bytes &b) { return qel_xmsg_unpack(b.data(), b.size()); }
uint16_t len16(const Bytes &k) { return static_cast<uint16_t>(k.size()); }
int add(qel_xmsg *m, const Bytes &k, const Bytes &v)
{
    return qel_xmsg_add(m, k.data(), len16(k), v.data(), static_cast<uint32_t>(v.size()));
}
const char *get(const qel_xmsg *m, const Bytes &k, uint32_t *vlen = nullptr, uint32_t *cursor = nullptr)
{
    return static_cast<const char *>(qel_xmsg_get(m, k.data(), len16(k), vlen, cursor));
}

Bytes pack(const qel_xmsg *m)
{
    Bytes out(qel_xmsg_pack_size(m), '\x5A');
    EXPECT_EQ(static_cast<int>(out.size()), qel_xmsg_pack(m, out.data(), out.size()));
    return out;
}

// Rewrites the check value (and, with fix_used, the used bytes) of an edited image.
Bytes reseal(Bytes b, bool fix_used = false)
{
    uint32_t used = static_cast<uint32_t>(b.size() - 16);
    if (fix_used)
        memcpy(&b[12], &used, 4);
    memcpy(&used, &b[12], 4);
    uint32_t check = qel::detail::hash33(b.data() + 16, used);
    memcpy(&b[4], &check, 4);
    return b;
}

// Offsets of the entries of the area, then its end.
std::vector<uint32_t> offsets(const qel_xmsg *m)
{
    std::vector<uint32_t> v = {0};
    while (v.back() < m->used) {
        const auto *e = reinterpret_cast<const qel_xmsg_entry *>(m->area + v.back());
        v.push_back(v.back() + ((e->klen + e->vlen + 16) & ~3u));
    }
    return v;
}

// The message as a list of entries; builds the packed image byte by byte from
// the documented layout, independently of the library.
struct Model {
    struct Entry {
        Bytes key, value;
        bool deleted = false;
    };
    std::vector<Entry> entries; // entries[0] is the creator entry

    explicit Model(const char *creator)
    {
        Bytes text = creator ? creator : "(null)";
        entries.push_back({"creator", (text + '\0').substr(0, text.size() % 65536 + 1), false});
    }
    void add(const Bytes &k, const Bytes &v) { entries.push_back({k, v, false}); }
    int del(const Bytes &k)
    {
        int n = 0;
        for (size_t i = 1; i < entries.size(); ++i)
            if (entries[i].key == k)
                n += entries[i].deleted = true;
        return n;
    }

    Bytes packed() const
    {
        Bytes a;
        uint32_t head[16] = {};
        for (const Entry &e : entries) {
            uint32_t off = static_cast<uint32_t>(a.size());
            size_t body = e.key.size() + e.value.size(), total = (body + 16) & ~size_t(3);
            put32(a, std::exchange(head[h33(e.key) & 15], off));
            put32(a, static_cast<uint32_t>(e.value.size()));
            uint16_t kl = len16(e.key);
            a.append(reinterpret_cast<const char *>(&kl), 2);
            a.push_back(e.deleted ? 1 : 0);
            a.push_back(static_cast<char>(total - (body + 13)));
            a += e.key + e.value;
            a.resize(off + total, '\0');
        }
        Bytes p = "XMSG";
        put32(p, h33(a));
        put32(p, static_cast<uint32_t>(entries.size()));
        put32(p, static_cast<uint32_t>(a.size()));
        return p + a;
    }

    // Live pairs after the creator, oldest first.
    Pairs live() const
    {
        Pairs v;
        for (size_t i = 1; i < entries.size(); ++i)
            if (!entries[i].deleted)
                v.emplace_back(entries[i].key, entries[i].value);
        return v;
    }

    // Live values of key, newest first.
    std::vector<Bytes> values(const Bytes &key) const
    {
        std::vector<Bytes> v;
        for (const auto &[k, val] : live())
            if (k == key)
                v.insert(v.begin(), val);
        return v;
    }
};

std::vector<Bytes> walk_key(const qel_xmsg *m, const Bytes &key)
{
    std::vector<Bytes> v;
    uint32_t cursor = 0, vlen = 0;
    do {
        const char *p = get(m, key, &vlen, &cursor);
        if (p == nullptr) {
            EXPECT_EQ(0u, cursor); // the chain ended without a match
            break;
        }
        EXPECT_EQ('\0', p[vlen]); // every value is followed by the entry's NUL
        uint32_t next;
        memcpy(&next, p - key.size() - 12, 4);
        EXPECT_EQ(next, cursor); // the next link of the chain, not the next match
        v.emplace_back(p, vlen);
    } while (cursor != 0);
    return v;
}

Pairs iterate(qel_xmsg *m)
{
    Pairs v;
    for (qel_xmsg_iter *it = qel_xmsg_first(m); it != nullptr; it = qel_xmsg_next(it)) {
        EXPECT_EQ(m, it->msg);
        v.emplace_back(Bytes(it->key, it->klen), Bytes(it->value, it->vlen));
    }
    return v;
}

void expect_matches(qel_xmsg *m, const Model &model, const std::vector<Bytes> &keys)
{
    EXPECT_EQ(model.packed(), pack(m));
    EXPECT_EQ(model.entries.size() - 1, qel_xmsg_nelem(m));
    EXPECT_STREQ(model.entries[0].value.c_str(), qel_xmsg_get_creator(m));
    EXPECT_EQ(model.live(), iterate(m));
    for (const Bytes &k : keys)
        EXPECT_EQ(model.values(k), walk_key(m, k)) << k;
}

// Entries over five keys, those of "key3" deleted.
qel_xmsg *sample(int n)
{
    qel_xmsg *m = qel_xmsg_new("sampler");
    for (int i = 0; i < n; ++i)
        add(m, "key" + std::to_string(i % 5), Bytes(static_cast<size_t>(i), static_cast<char>('a' + i)));
    qel_xmsg_del(m, "key3", 4);
    return m;
}

TEST(Xmsg, NewMessageHoldsOnlyItsHiddenCreator)
{
    Bytes longname(65536 + 5, 'x');
    longname[3] = 'y';
    const struct {
        const char *name, *want;
    } cases[] = {{"agent", "agent"}, {nullptr, "(null)"}, {"", ""}, {longname.c_str(), "xxxyxx"}};
    static const unsigned char kAgent[44] = {
        'X', 'M', 'S', 'G', 0x94, 0x6F, 0x48, 0xA5, 1, 0, 0, 0, 28, 0, 0, 0,             // header
        0, 0, 0, 0, 6, 0, 0, 0, 7, 0, 0, 2,                                             // entry header
        'c', 'r', 'e', 'a', 't', 'o', 'r', 'a', 'g', 'e', 'n', 't', 0, 0, 0, 0};         // body
    EXPECT_EQ(Bytes(reinterpret_cast<const char *>(kAgent), 44), Model("agent").packed()); // the model itself
    for (const auto &c : cases) {
        qel_xmsg *m = qel_xmsg_new(c.name);
        EXPECT_STREQ(c.want, qel_xmsg_get_creator(m)); // a long name is cut to (length mod 65536) + NUL
        EXPECT_EQ(Model(c.name).packed(), pack(m));
        EXPECT_EQ(0u, qel_xmsg_nelem(m));
        EXPECT_EQ(nullptr, qel_xmsg_first(m));
        EXPECT_EQ(nullptr, get(m, "creator"));
        EXPECT_EQ(m, qel_xmsg_retain(m));
        EXPECT_EQ(2, qel_xmsg_nref(m));
        qel_xmsg_release(m);
        EXPECT_EQ(1, qel_xmsg_nref(m));
        qel_xmsg_release(m); // freed: ASan reports a leak otherwise
    }
}

TEST(Xmsg, ArgumentChecks)
{
    qel_xmsg *m = qel_xmsg_new("t");
    Bytes before = pack(m);
    EXPECT_EQ(-1, qel_xmsg_add(nullptr, "k", 1, "v", 1));
    EXPECT_EQ(-1, qel_xmsg_add(m, nullptr, 1, "v", 1));
    EXPECT_EQ(-1, qel_xmsg_add(m, "k", 0, "v", 1));
    EXPECT_EQ(-1, qel_xmsg_add(m, "k", 1, nullptr, 0));
    EXPECT_EQ(0, qel_xmsg_del(nullptr, "k", 1));
    EXPECT_EQ(0, qel_xmsg_del(m, nullptr, 1));
    EXPECT_EQ(0, qel_xmsg_del(m, "k", 0));
    EXPECT_EQ(nullptr, qel_xmsg_get(nullptr, "k", 1, nullptr, nullptr));
    EXPECT_EQ(nullptr, qel_xmsg_get(m, nullptr, 1, nullptr, nullptr));
    EXPECT_EQ(nullptr, qel_xmsg_get(m, "k", 0, nullptr, nullptr));
    EXPECT_EQ(before, pack(m));

    EXPECT_EQ(nullptr, qel_xmsg_retain(nullptr));
    qel_xmsg_release(nullptr);
    EXPECT_EQ(0, qel_xmsg_nref(nullptr));
    EXPECT_EQ(0u, qel_xmsg_nelem(nullptr));
    EXPECT_EQ(nullptr, qel_xmsg_get_creator(nullptr));
    EXPECT_EQ(nullptr, qel_xmsg_first(nullptr));
    EXPECT_EQ(nullptr, qel_xmsg_next(nullptr));
    EXPECT_EQ(nullptr, qel_xmsg_dup(nullptr));
    EXPECT_EQ(0u, qel_xmsg_pack_size(nullptr));
    char buf[64];
    EXPECT_EQ(-1, qel_xmsg_pack(nullptr, buf, sizeof buf));
    EXPECT_EQ(-1, qel_xmsg_pack(m, nullptr, 64));
    EXPECT_EQ(nullptr, qel_xmsg_pack_aux(nullptr, nullptr));
    EXPECT_EQ(nullptr, qel_xmsg_unpack(nullptr, 100));
    qel_xmsg_debug(nullptr);
    qel_xmsg_release(m);
}

TEST(Xmsg, KeyAndAreaLimits)
{
    qel_xmsg m = {};
    m.nref = 1;
    m.used = m.capacity = QEL_XMSG_MAX_AREA - 12; // pretend: the area is all but full
    EXPECT_EQ(-1, qel_xmsg_add(&m, "k", 1, "v", 1)); // 16 more bytes would pass the limit
    EXPECT_EQ(0u, m.count);
    std::vector<char> big(70000);
    qel_xmsg *r = qel_xmsg_new("t");
    EXPECT_EQ(-1, qel_xmsg_add(r, "k", 1, big.data(), 0xFFFFFFF0u));
    EXPECT_EQ(0u, qel_xmsg_nelem(r));
    Bytes longkey(65535, 'K');
    EXPECT_EQ(0, add(r, longkey, "v"));
    EXPECT_EQ(std::vector<Bytes>{"v"}, walk_key(r, longkey));
    uint32_t cursor = r->capacity; // past the used bytes, at the end of the area
    EXPECT_EQ(nullptr, get(r, longkey, nullptr, &cursor));
    EXPECT_EQ(0u, cursor);
    qel_xmsg_release(r);
}

// Random adds, deletes, lookups, copies and round trips through the packed
// form against the model; some values span several of the 4 KiB slices in
// which unpacking copies and relinks.
TEST(Xmsg, RandomOperationsMatchTheModel)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 20; ++round) {
        const char *creator = round % 5 == 0 ? nullptr : "creator-name";
        qel_xmsg *m = qel_xmsg_new(creator);
        Model model(creator);
        uint64_t cap = 64; // the area grows to 64, then doubles, only when an entry does not fit
        // "creator" is added and deleted like any key; the creator entry stays.
        std::vector<Bytes> keys = {"creator"};
        for (int i = 0; i < 8; ++i)
            keys.push_back(rng.chance(20) ? rng.bytes(rng.range(1, 5)) : rng.bytes(rng.range(1, 3), 'a', 'd'));
        for (int step = 0; step < 300; ++step) {
            const Bytes &k = keys[rng.range(0, keys.size() - 1)];
            unsigned op = static_cast<unsigned>(rng.range(0, 99));
            if (op < 60) {
                // A fifth of the adds copy an entry of the message itself, key
                // and value, which the growth of the area may move.
                uint32_t vlen = 0;
                const char *own = rng.chance(20) ? get(m, k, &vlen) : nullptr;
                size_t size = rng.chance(1) ? rng.range(5000, 70000) : rng.chance(5) ? rng.range(200, 700) : rng.range(0, 24);
                Bytes v = own ? Bytes(own, vlen) : rng.bytes(size);
                while (cap < m->used + ((k.size() + v.size() + 16) & ~size_t(3)))
                    cap *= 2;
                ASSERT_EQ(0, own ? qel_xmsg_add(m, own - k.size(), len16(k), own, vlen) : add(m, k, v));
                ASSERT_EQ(cap, m->capacity);
                model.add(k, v);
            } else if (op < 70) {
                ASSERT_EQ(model.del(k), qel_xmsg_del(m, k.data(), len16(k)));
            } else if (op < 90) {
                ASSERT_EQ(model.values(k), walk_key(m, k)) << step;
            } else if (op < 95) {
                qel_xmsg_retain(m);
                qel_xmsg *d = qel_xmsg_dup(m);
                qel_xmsg_release(m);
                ASSERT_EQ(1, qel_xmsg_nref(d));
                ASSERT_EQ(m->capacity, d->capacity); // the whole capacity is copied
                ASSERT_EQ(0, memcmp(m->area, d->area, m->capacity));
                expect_matches(d, model, keys);
                add(d, k, "only-in-dup"); // the original must not see it
                qel_xmsg_release(d);
            } else {
                // Garbage in every next link but the creator's: unpacking
                // rebuilds the chains, deleted entries included.
                Bytes p = pack(m), scrambled = p;
                std::vector<uint32_t> offs = offsets(m);
                for (size_t i = 1; i + 1 < offs.size(); ++i)
                    memcpy(&scrambled[16 + offs[i]], "\xEF\xBE\xAD\xDE", 4);
                qel_xmsg *u = unpack(reseal(scrambled));
                ASSERT_NE(nullptr, u);
                EXPECT_EQ(u->used, u->capacity);
                expect_matches(u, model, keys);
                ASSERT_EQ(0, add(u, k, "after"));
                Model grown = model;
                grown.add(k, "after");
                expect_matches(u, grown, keys);
                qel_xmsg_release(u);
                // A wrong pad count in the last entry, far into the area.
                p[16 + offs.rbegin()[1] + 11] ^= 4;
                EXPECT_EQ(nullptr, unpack(reseal(p)));
            }
        }
        expect_matches(m, model, keys);
        qel_xmsg_release(m);
    }
}

TEST(Xmsg, PackAndUnpackCheckSizesAndTheCheckValueButNotTheMagic)
{
    qel_xmsg *m = sample(12);
    Bytes p = pack(m);
    ASSERT_EQ(m->used + 16, p.size());
    std::vector<char> buf(p.size() + 8, 'z');
    EXPECT_EQ(-1, qel_xmsg_pack(m, buf.data(), p.size() - 1));
    EXPECT_EQ('z', buf[0]);
    EXPECT_EQ(static_cast<int>(p.size()), qel_xmsg_pack(m, buf.data(), buf.size()));
    EXPECT_EQ('z', buf[p.size()]); // nothing past the packed size
    uint32_t got = 0;
    void *aux = qel_xmsg_pack_aux(m, &got);
    ASSERT_NE(nullptr, aux);
    EXPECT_EQ(p.size(), got);
    EXPECT_EQ(p, Bytes(static_cast<char *>(aux), got));
    free(aux);
    aux = qel_xmsg_pack_aux(m, nullptr);
    EXPECT_NE(nullptr, aux);
    free(aux);

    // Any flipped bit of the check value or of the area: x33 steps are
    // invertible, so a one-byte change always changes the hash.
    for (size_t bit = 32; bit < 8 * p.size(); bit = bit == 63 ? 128 : bit + 1) {
        Bytes bad = p;
        bad[bit / 8] ^= static_cast<char>(1 << (bit % 8));
        EXPECT_EQ(nullptr, unpack(bad)) << bit;
    }
    // Accepted: the image, a longer buffer, another magic (the packer writes its own).
    Bytes other = p;
    memcpy(&other[0], "ABCD", 4);
    for (const Bytes &b : {p, p + "trailing", other}) {
        qel_xmsg *u = unpack(b);
        ASSERT_NE(nullptr, u);
        EXPECT_EQ(1, qel_xmsg_nref(u));
        EXPECT_STREQ("sampler", qel_xmsg_get_creator(u));
        EXPECT_EQ(p, pack(u));
        qel_xmsg_release(u);
    }
    uint32_t count = 77; // the entry count is taken as it stands
    memcpy(&other[8], &count, 4);
    qel_xmsg *u = unpack(other);
    ASSERT_NE(nullptr, u);
    EXPECT_EQ(76u, qel_xmsg_nelem(u));
    qel_xmsg_release(u);
    qel_xmsg_release(m);
}

TEST(Xmsg, UnpackEveryPrefix)
{
    qel_xmsg *m = sample(20);
    Bytes p = pack(m);
    std::vector<uint32_t> bounds = offsets(m);
    for (size_t len = 0; len < p.size(); ++len) {
        Bytes cut = p.substr(0, len);
        EXPECT_EQ(nullptr, unpack(cut)) << len; // the header claims more than there is
        if (len < 16)
            continue;
        // Resealed: only a cut at an entry boundary tiles the area.
        bool boundary = std::find(bounds.begin(), bounds.end(), len - 16) != bounds.end();
        qel_xmsg *u = unpack(reseal(cut, true));
        EXPECT_EQ(boundary, u != nullptr) << len;
        if (u != nullptr) {
            EXPECT_EQ(reseal(cut, true), pack(u));
            for (qel_xmsg_iter *it = qel_xmsg_first(u); it != nullptr; it = qel_xmsg_next(it))
                EXPECT_LE(it->value + it->vlen, reinterpret_cast<const char *>(u->area + u->used));
            qel_xmsg_release(u);
        }
    }
    qel_xmsg_release(m);
}

TEST(Xmsg, UnpackRefusesAreasThatDoNotTile)
{
    qel_xmsg *m = qel_xmsg_new("agent");
    add(m, "key", "value"); // at offset 28: 12 + 3 + 5 + 1 + 3 pad = 24
    Bytes p = pack(m);
    ASSERT_EQ(16u + 52u, p.size());
    const size_t e = 16 + 28; // the second entry in the image
    auto edit = [&](size_t at, uint32_t value, size_t width) {
        Bytes b = p;
        memcpy(&b[at], &value, width); // little-endian: the low bytes
        return reseal(b);
    };
    const struct { size_t at; uint32_t value; size_t width; } refused[] = {
        {e + 8, 0, 2},           {16 + 8, 0, 2},  // key length 0, also the creator's
        {e + 4, 9, 4},           {e + 4, 0xFFFFFFF0u, 4}, // value past the end
        {e + 8, 0xFFFF, 2},      {e + 11, 2, 1},  // key past the end, wrong pad count
        {e + 12 + 3 + 5, 'X', 1},                 // no NUL after the value
    };
    for (const auto &r : refused)
        EXPECT_EQ(nullptr, unpack(edit(r.at, r.value, r.width))) << r.at << " " << r.value;
    // Used bytes not a multiple of 4, or a trailing header of key length 0.
    EXPECT_EQ(nullptr, unpack(reseal(p + Bytes(3, '\0'), true)));
    EXPECT_EQ(nullptr, unpack(reseal(p + Bytes(12, '\0'), true)));

    // Tiling ones still unpack: flags other than deleted, filler that is not zero.
    qel_xmsg *u = unpack(edit(e + 10, 0x81, 1));
    ASSERT_NE(nullptr, u);
    EXPECT_EQ(nullptr, get(u, "key")); // bit 0: deleted
    qel_xmsg_release(u);
    u = unpack(edit(e + 23, 0x7F, 1));
    ASSERT_NE(nullptr, u);
    EXPECT_STREQ("value", get(u, "key"));
    qel_xmsg_release(u);
    qel_xmsg_release(m);
}

TEST(Xmsg, DebugListsLiveEntriesAfterTheCreator)
{
    qel_xmsg *m = qel_xmsg_new("t");
    add(m, "name", "value");
    add(m, "gone", "x");
    add(m, "e", "");
    qel_xmsg_del(m, "gone", 4);
    testing::internal::CaptureStdout();
    qel_xmsg_debug(m);
    fflush(stdout);
    EXPECT_EQ("[name] => [value]\n[e] => []\n", testing::internal::GetCapturedStdout());
    qel_xmsg_release(m);
}

struct NoInjection {
    ~NoInjection() { qel::detail::fail_allocations(0, 0); }
};

TEST(Xmsg, AllocationFailuresAreReturned)
{
    NoInjection guard;
    using qel::detail::fail_allocations;
    fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_xmsg_new("t"));

    // A message without entries: the object of a new one whose area failed,
    // the unpacked empty image, and its copy.
    Bytes empty = "XMSG";
    put32(empty, 5318); // the check value of no bytes is the seed
    put32(empty, 0);
    put32(empty, 0);
    fail_allocations(1, 1);
    qel_xmsg *bare[3] = {qel_xmsg_new("t"), unpack(empty), nullptr};
    fail_allocations(0, 0);
    bare[2] = qel_xmsg_dup(bare[1]);
    for (qel_xmsg *b : bare) {
        ASSERT_NE(nullptr, b);
        EXPECT_EQ(nullptr, qel_xmsg_get_creator(b));
        EXPECT_EQ(nullptr, qel_xmsg_first(b));
        EXPECT_EQ(empty, pack(b));
        EXPECT_EQ(0xFFFFFFFFu, qel_xmsg_nelem(b));
        EXPECT_EQ(0, add(b, "k", "first")); // takes the creator entry's place
        EXPECT_STREQ("first", qel_xmsg_get_creator(b));
        EXPECT_EQ(nullptr, get(b, "k"));
        EXPECT_EQ(0u, qel_xmsg_nelem(b));
        qel_xmsg_release(b);
    }

    qel_xmsg *m = sample(12);
    Bytes before = pack(m);
    uint32_t cap = m->capacity;
    Bytes big(cap, 'v');
    fail_allocations(0, 1);
    EXPECT_EQ(-1, add(m, "k", big)); // a failed growth changes nothing
    EXPECT_EQ(before, pack(m));
    EXPECT_EQ(cap, m->capacity);
    EXPECT_EQ(0, add(m, "k", big)); // usable afterwards
    before = pack(m);
    for (long skip = 0; skip < 2; ++skip) { // object, then area
        fail_allocations(skip, 1);
        EXPECT_EQ(nullptr, qel_xmsg_dup(m)) << skip;
        fail_allocations(skip, 1);
        EXPECT_EQ(nullptr, unpack(before)) << skip;
    }
    fail_allocations(0, 1);
    uint32_t size = 123;
    EXPECT_EQ(nullptr, qel_xmsg_pack_aux(m, &size));
    EXPECT_EQ(123u, size);
    fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_xmsg_first(m));
    fail_allocations(0, 0);
    EXPECT_EQ(before, pack(m));
    qel_xmsg_release(m);
}

TEST(Xmsg, CheckValueAndBucketShortcutEqualTheByteSerialHash)
{
    using namespace qel::xmsg_internal;
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    std::vector<unsigned char> src(9000), dst(9000);
    for (int i = 0; i < 600; ++i) {
        size_t len = i < 520 ? static_cast<size_t>(i) : rng.range(0, 8900);
        size_t at = rng.range(0, 64), to = rng.range(0, 64);
        uint32_t seed = rng.chance(50) ? qel::detail::kHashSeed : static_cast<uint32_t>(rng.next());
        for (size_t j = 0; j < len; ++j)
            src[at + j] = rng.chance(10) ? 0xFF : static_cast<unsigned char>(rng.next());
        uint32_t want = qel::detail::hash33(src.data() + at, len, seed);
        ASSERT_EQ(want, check_value(src.data() + at, len, seed)) << len;
        ASSERT_EQ(want, check_value_portable(src.data() + at, len, seed)) << len;
        ASSERT_EQ(want, check_value_copy(dst.data() + to, src.data() + at, len, seed)) << len;
        ASSERT_EQ(0, memcmp(dst.data() + to, src.data() + at, len));
    }
    for (int i = 0; i < 5000; ++i) {
        std::string key = rng.bytes(i < 64 ? static_cast<size_t>(i) : rng.range(1, 300));
        const auto *k = reinterpret_cast<const unsigned char *>(key.data());
        ASSERT_EQ(qel::detail::hash33(k, key.size()) & 15, bucket_by_sum(k, key.size())) << key.size();
    }
    // All bytes at their largest: the word sums are at their extremes.
    std::vector<unsigned char> ff(4096, 0xFF);
    EXPECT_EQ(qel::detail::hash33(ff.data(), ff.size()), check_value(ff.data(), ff.size(), 5318));
}

} // namespace
