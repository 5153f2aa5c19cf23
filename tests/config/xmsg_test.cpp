#include "qel_xmsg.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "base/internal.h"
#include "config/xmsg_impl.h"
#include "support/test_util.h"

namespace {

using Bytes = std::string;

uint32_t h33(const Bytes &b)
{
    return qel::detail::hash33(b.data(), b.size());
}

void put32(Bytes &out, uint32_t v)
{
    out.append(reinterpret_cast<const char *>(&v), 4); // host order, as the packer writes
}

Bytes pack(const qel_xmsg *m)
{
    Bytes out(qel_xmsg_pack_size(m), '\x5A');
    int n = qel_xmsg_pack(m, out.data(), out.size());
    EXPECT_EQ(static_cast<int>(out.size()), n);
    return out;
}

qel_xmsg *unpack(const Bytes &b)
{
    return qel_xmsg_unpack(b.data(), b.size());
}

// Replaces the check value (and optionally the used bytes) of a packed image
// after its area was edited.
Bytes reseal(Bytes b, bool fix_used = false)
{
    if (fix_used) {
        uint32_t used = static_cast<uint32_t>(b.size() - 16);
        memcpy(&b[12], &used, 4);
    }
    uint32_t used;
    memcpy(&used, &b[12], 4);
    uint32_t check = qel::detail::hash33(b.data() + 16, used);
    memcpy(&b[4], &check, 4);
    return b;
}

// The message as a list of entries; builds the entry area byte by byte from
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

    Bytes area() const
    {
        Bytes a;
        uint32_t head[16] = {};
        for (const Entry &e : entries) {
            uint32_t off = static_cast<uint32_t>(a.size());
            unsigned b = h33(e.key) & 15;
            size_t total = (e.key.size() + e.value.size() + 16) & ~size_t(3);
            put32(a, head[b]);
            head[b] = off;
            put32(a, static_cast<uint32_t>(e.value.size()));
            uint16_t kl = static_cast<uint16_t>(e.key.size());
            a.append(reinterpret_cast<const char *>(&kl), 2);
            a.push_back(e.deleted ? 1 : 0);
            a.push_back(static_cast<char>(total - (e.key.size() + e.value.size() + 13)));
            a += e.key;
            a += e.value;
            a.resize(off + total, '\0');
        }
        return a;
    }

    Bytes packed() const
    {
        Bytes ar = area();
        Bytes p = "XMSG";
        put32(p, h33(ar));
        put32(p, static_cast<uint32_t>(entries.size()));
        put32(p, static_cast<uint32_t>(ar.size()));
        return p + ar;
    }

    // Live values of key, newest first.
    std::vector<Bytes> values(const Bytes &key) const
    {
        std::vector<Bytes> v;
        for (size_t i = entries.size(); i-- > 1;)
            if (entries[i].key == key && !entries[i].deleted)
                v.push_back(entries[i].value);
        return v;
    }

    // Live (key, value) pairs after the creator, oldest first.
    std::vector<std::pair<Bytes, Bytes>> live() const
    {
        std::vector<std::pair<Bytes, Bytes>> v;
        for (size_t i = 1; i < entries.size(); ++i)
            if (!entries[i].deleted)
                v.emplace_back(entries[i].key, entries[i].value);
        return v;
    }
};

std::vector<Bytes> walk_key(const qel_xmsg *m, const Bytes &key)
{
    std::vector<Bytes> v;
    uint32_t cursor = 0;
    do {
        uint32_t vlen = 0xFFFFFFFF;
        auto *p = static_cast<const char *>(
            qel_xmsg_get(m, key.data(), static_cast<uint16_t>(key.size()), &vlen, &cursor));
        if (p == nullptr) {
            EXPECT_EQ(0u, cursor);
            break;
        }
        EXPECT_EQ('\0', p[vlen]); // every value is followed by the entry's NUL
        v.emplace_back(p, vlen);
    } while (cursor != 0);
    return v;
}

std::vector<std::pair<Bytes, Bytes>> iterate(qel_xmsg *m)
{
    std::vector<std::pair<Bytes, Bytes>> v;
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
    EXPECT_EQ(model.live(), iterate(m));
    for (const Bytes &k : keys)
        EXPECT_EQ(model.values(k), walk_key(m, k)) << k;
}

int add(qel_xmsg *m, const Bytes &k, const Bytes &v)
{
    return qel_xmsg_add(m, k.data(), static_cast<uint16_t>(k.size()), v.data(), static_cast<uint32_t>(v.size()));
}

// ---- the worked example and the wire image --------------------------------

TEST(Xmsg, WorkedExampleIsByteExact)
{
    static const unsigned char kAgent[44] = {
        'X', 'M', 'S', 'G', 0x94, 0x6F, 0x48, 0xA5, 1, 0, 0, 0, 28, 0, 0, 0,             // header
        0, 0, 0, 0, 6, 0, 0, 0, 7, 0, 0, 2,                                             // entry header
        'c', 'r', 'e', 'a', 't', 'o', 'r', 'a', 'g', 'e', 'n', 't', 0, 0, 0, 0};         // body
    qel_xmsg *m = qel_xmsg_new("agent");
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(44u, qel_xmsg_pack_size(m));
    EXPECT_EQ(64u, m->capacity);
    EXPECT_EQ(28u, m->used);
    EXPECT_EQ(Bytes(reinterpret_cast<const char *>(kAgent), 44), pack(m));
    EXPECT_EQ(0xA5486F94u, qel::detail::hash33(kAgent + 16, 28));
    EXPECT_EQ(Model("agent").packed(), pack(m));
    qel_xmsg_release(m);
}

TEST(Xmsg, NewMessageHidesItsCreator)
{
    qel_xmsg *m = qel_xmsg_new("agent");
    EXPECT_EQ(1, qel_xmsg_nref(m));
    EXPECT_EQ(0u, qel_xmsg_nelem(m));
    EXPECT_EQ(nullptr, qel_xmsg_first(m));
    uint32_t cursor = 0;
    EXPECT_EQ(nullptr, qel_xmsg_get(m, "creator", 7, nullptr, &cursor));
    EXPECT_STREQ("agent", qel_xmsg_get_creator(m));
    qel_xmsg_release(m);

    m = qel_xmsg_new(nullptr);
    EXPECT_STREQ("(null)", qel_xmsg_get_creator(m));
    EXPECT_EQ(Model(nullptr).packed(), pack(m));
    qel_xmsg_release(m);

    m = qel_xmsg_new("");
    EXPECT_STREQ("", qel_xmsg_get_creator(m));
    EXPECT_EQ(16u + 24u, qel_xmsg_pack_size(m)); // 12 + 7 + 1 + NUL, rounded up to 24
    qel_xmsg_release(m);
}

TEST(Xmsg, CreatorLengthIsKeptModulo65536)
{
    std::string name(65536 + 5, 'x');
    name[3] = 'y';
    qel_xmsg *m = qel_xmsg_new(name.c_str());
    EXPECT_STREQ("xxxyxx", qel_xmsg_get_creator(m)); // 6 bytes of value, then the entry's NUL
    EXPECT_EQ(Model(name.c_str()).packed(), pack(m));
    qel_xmsg_release(m);
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

TEST(Xmsg, ReferenceCount)
{
    qel_xmsg *m = qel_xmsg_new("t");
    EXPECT_EQ(m, qel_xmsg_retain(m));
    EXPECT_EQ(2, qel_xmsg_nref(m));
    qel_xmsg_release(m);
    EXPECT_EQ(1, qel_xmsg_nref(m));
    qel_xmsg_release(m); // freed: ASan reports a leak otherwise
}

// ---- adding, looking up, deleting ------------------------------------------

TEST(Xmsg, RepeatedKeyCursorWalksOlderEntriesThenStartsOver)
{
    qel_xmsg *m = qel_xmsg_new("t");
    ASSERT_EQ(0, qel_xmsg_add(m, "k", 1, "first", 5));
    ASSERT_EQ(0, qel_xmsg_add(m, "k", 1, "second", 6));
    uint32_t cursor = 0, vlen = 0;
    auto *v = static_cast<const char *>(qel_xmsg_get(m, "k", 1, &vlen, &cursor));
    EXPECT_EQ("second", Bytes(v, vlen));
    EXPECT_NE(0u, cursor);
    v = static_cast<const char *>(qel_xmsg_get(m, "k", 1, &vlen, &cursor));
    EXPECT_EQ("first", Bytes(v, vlen));
    EXPECT_EQ(0u, cursor); // no older entry in the chain
    v = static_cast<const char *>(qel_xmsg_get(m, "k", 1, &vlen, &cursor));
    EXPECT_EQ("second", Bytes(v, vlen)); // a cursor of 0 starts over
    // Without cursor or length: the newest.
    EXPECT_STREQ("second", static_cast<const char *>(qel_xmsg_get(m, "k", 1, nullptr, nullptr)));
    EXPECT_EQ(2u, qel_xmsg_nelem(m));
    qel_xmsg_release(m);
}

TEST(Xmsg, CursorPastTheAreaEndsTheWalk)
{
    qel_xmsg *m = qel_xmsg_new("t");
    add(m, "k", "v");
    uint32_t cursor = 4096;
    EXPECT_EQ(nullptr, qel_xmsg_get(m, "k", 1, nullptr, &cursor));
    EXPECT_EQ(0u, cursor);
    qel_xmsg_release(m);
}

TEST(Xmsg, ChainEndsWithoutMatchResetsCursor)
{
    // Two keys of the same bucket: the walk passes the other key's entry.
    Bytes a = "a", b;
    for (char c = 'a' + 1;; ++c)
        if ((h33(Bytes(1, c)) & 15) == (h33(a) & 15)) {
            b = Bytes(1, c);
            break;
        }
    qel_xmsg *m = qel_xmsg_new("t");
    add(m, b, "old-b");
    add(m, a, "A");
    add(m, b, "new-b");
    uint32_t cursor = 0;
    EXPECT_NE(nullptr, qel_xmsg_get(m, a.data(), 1, nullptr, &cursor));
    EXPECT_NE(0u, cursor); // old-b is still on the chain
    EXPECT_EQ(nullptr, qel_xmsg_get(m, a.data(), 1, nullptr, &cursor));
    EXPECT_EQ(0u, cursor);
    qel_xmsg_release(m);
}

TEST(Xmsg, DeleteOnlyMarks)
{
    qel_xmsg *m = qel_xmsg_new("t");
    add(m, "k", "1");
    add(m, "other", "x");
    add(m, "k", "2");
    uint32_t size = qel_xmsg_pack_size(m);
    EXPECT_EQ(2, qel_xmsg_del(m, "k", 1));
    EXPECT_EQ(3u, qel_xmsg_nelem(m));
    EXPECT_EQ(size, qel_xmsg_pack_size(m));
    EXPECT_EQ(nullptr, qel_xmsg_get(m, "k", 1, nullptr, nullptr));
    auto live = iterate(m);
    ASSERT_EQ(1u, live.size());
    EXPECT_EQ("other", live[0].first);
    EXPECT_EQ(2, qel_xmsg_del(m, "k", 1)); // already deleted ones count again
    EXPECT_EQ(0, qel_xmsg_del(m, "absent", 6));
    EXPECT_EQ(0, qel_xmsg_del(m, "creator", 7)); // not on any chain
    EXPECT_STREQ("t", qel_xmsg_get_creator(m));
    Model model("t");
    model.entries.push_back({"k", "1", true});
    model.entries.push_back({"other", "x", false});
    model.entries.push_back({"k", "2", true});
    EXPECT_EQ(model.packed(), pack(m));
    qel_xmsg_release(m);
}

TEST(Xmsg, EmptyValueAndBinaryKeys)
{
    qel_xmsg *m = qel_xmsg_new("t");
    EXPECT_EQ(0, qel_xmsg_add(m, "e", 1, "", 0));
    uint32_t vlen = 99;
    auto *v = static_cast<const char *>(qel_xmsg_get(m, "e", 1, &vlen, nullptr));
    ASSERT_NE(nullptr, v);
    EXPECT_EQ(0u, vlen);
    EXPECT_EQ('\0', v[0]);
    Bytes bin("\0\xff\0", 3);
    EXPECT_EQ(0, add(m, bin, Bytes("\0\0", 2)));
    EXPECT_EQ(nullptr, qel_xmsg_get(m, "\0\xff", 2, nullptr, nullptr)); // length matters
    EXPECT_NE(nullptr, qel_xmsg_get(m, bin.data(), 3, &vlen, nullptr));
    EXPECT_EQ(2u, vlen);
    Bytes longkey(65535, 'K');
    EXPECT_EQ(0, add(m, longkey, "v"));
    EXPECT_EQ(std::vector<Bytes>{"v"}, walk_key(m, longkey));
    qel_xmsg_release(m);
}

TEST(Xmsg, AreaGrowsTo64ThenDoublesOnlyWhenNeeded)
{
    qel_xmsg *m = qel_xmsg_new("agent"); // 28 bytes
    EXPECT_EQ(64u, m->capacity);
    uint64_t used = m->used, cap = 64;
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int i = 0; i < 300; ++i) {
        Bytes k = "k" + std::to_string(i);
        Bytes v = rng.bytes(rng.range(0, 200));
        uint64_t total = (k.size() + v.size() + 16) & ~uint64_t(3);
        while (cap < used + total)
            cap *= 2;
        ASSERT_EQ(0, add(m, k, v));
        used += total;
        ASSERT_EQ(used, m->used);
        ASSERT_EQ(cap, m->capacity);
    }
    qel_xmsg_release(m);
}

TEST(Xmsg, AddingBytesOfTheMessageItselfSurvivesGrowth)
{
    qel_xmsg *m = qel_xmsg_new("agent");
    add(m, "seed", "0123456789");
    for (int i = 0; i < 200; ++i) { // each copy may move the area
        uint32_t vlen = 0;
        const void *v = qel_xmsg_get(m, "seed", 4, &vlen, nullptr);
        const char *creator = qel_xmsg_get_creator(m);
        ASSERT_EQ(0, qel_xmsg_add(m, creator, 5, v, vlen));
    }
    EXPECT_EQ(200u, walk_key(m, "agent").size());
    for (const Bytes &v : walk_key(m, "agent"))
        EXPECT_EQ("0123456789", v);
    qel_xmsg_release(m);
}

TEST(Xmsg, AreaNeverPassesItsLimit)
{
    qel_xmsg m = {};
    m.nref = 1;
    m.used = QEL_XMSG_MAX_AREA - 12; // pretend: the area is all but full
    m.capacity = QEL_XMSG_MAX_AREA - 12;
    EXPECT_EQ(-1, qel_xmsg_add(&m, "k", 1, "v", 1)); // 16 more bytes would pass the limit
    EXPECT_EQ(0u, m.count);
    std::vector<char> big(70000);
    qel_xmsg *r = qel_xmsg_new("t");
    EXPECT_EQ(-1, qel_xmsg_add(r, "k", 1, big.data(), 0xFFFFFFF0u));
    EXPECT_EQ(0u, qel_xmsg_nelem(r));
    qel_xmsg_release(r);
}

// ---- the model: random operations against a list of entries -----------------

TEST(Xmsg, RandomOperationsMatchTheModel)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    for (int round = 0; round < 20; ++round) {
        const char *creator = round % 5 == 0 ? nullptr : "creator-name";
        qel_xmsg *m = qel_xmsg_new(creator);
        Model model(creator);
        std::vector<Bytes> keys = {"creator"};
        for (int i = 0; i < 8; ++i)
            keys.push_back(rng.chance(20) ? rng.bytes(rng.range(1, 5)) : rng.bytes(rng.range(1, 3), 'a', 'd'));
        for (int step = 0; step < 300; ++step) {
            const Bytes &k = keys[rng.range(1, keys.size() - 1)];
            unsigned op = static_cast<unsigned>(rng.range(0, 99));
            if (op < 60) {
                Bytes v = rng.bytes(rng.chance(5) ? rng.range(200, 700) : rng.range(0, 24));
                ASSERT_EQ(0, add(m, k, v));
                model.entries.push_back({k, v, false});
            } else if (op < 70) {
                int marked = 0;
                for (auto &e : model.entries)
                    if (&e != &model.entries[0] && e.key == k) {
                        e.deleted = true;
                        ++marked;
                    }
                ASSERT_EQ(marked, qel_xmsg_del(m, k.data(), static_cast<uint16_t>(k.size())));
            } else if (op < 90) {
                ASSERT_EQ(model.values(k), walk_key(m, k)) << step;
            } else if (op < 95) {
                qel_xmsg *d = qel_xmsg_dup(m);
                ASSERT_EQ(1, qel_xmsg_nref(d));
                ASSERT_EQ(m->capacity, d->capacity);
                ASSERT_EQ(0, memcmp(m->area, d->area, m->capacity));
                add(d, "only-in-dup", "x"); // independent
                qel_xmsg_release(d);
            } else {
                // Through the wire and back: same bytes, same answers.
                Bytes p = pack(m);
                qel_xmsg *u = unpack(p);
                ASSERT_NE(nullptr, u);
                EXPECT_EQ(u->used, u->capacity);
                EXPECT_EQ(p, pack(u));
                expect_matches(u, model, keys);
                ASSERT_EQ(0, add(u, k, "after"));
                Model grown = model;
                grown.entries.push_back({k, "after", false});
                expect_matches(u, grown, keys);
                qel_xmsg_release(u);
            }
        }
        expect_matches(m, model, keys);
        qel_xmsg_release(m);
    }
}

// ---- packing and unpacking -----------------------------------------------------

qel_xmsg *sample(int n = 12)
{
    qel_xmsg *m = qel_xmsg_new("sampler");
    for (int i = 0; i < n; ++i)
        add(m, "key" + std::to_string(i % 5), Bytes(static_cast<size_t>(i), static_cast<char>('a' + i)));
    qel_xmsg_del(m, "key3", 4);
    return m;
}

TEST(Xmsg, PackBufferMustHoldThePackedSize)
{
    qel_xmsg *m = sample();
    uint32_t size = qel_xmsg_pack_size(m);
    EXPECT_EQ(m->used + 16, size);
    std::vector<char> buf(size + 8, 'z');
    EXPECT_EQ(-1, qel_xmsg_pack(m, buf.data(), size - 1));
    EXPECT_EQ('z', buf[0]);
    EXPECT_EQ(static_cast<int>(size), qel_xmsg_pack(m, buf.data(), buf.size()));
    EXPECT_EQ('z', buf[size]); // nothing past the packed size
    uint32_t got = 0;
    void *aux = qel_xmsg_pack_aux(m, &got);
    ASSERT_NE(nullptr, aux);
    EXPECT_EQ(size, got);
    EXPECT_EQ(0, memcmp(aux, buf.data(), size));
    free(aux);
    aux = qel_xmsg_pack_aux(m, nullptr);
    EXPECT_NE(nullptr, aux);
    free(aux);
    qel_xmsg_release(m);
}

TEST(Xmsg, UnpackChecksLengthAndCheckValueButNotMagic)
{
    qel_xmsg *m = sample();
    Bytes p = pack(m);
    qel_xmsg *u = unpack(p);
    ASSERT_NE(nullptr, u);
    EXPECT_EQ(1, qel_xmsg_nref(u));
    EXPECT_EQ(p, pack(u));
    EXPECT_STREQ("sampler", qel_xmsg_get_creator(u));
    qel_xmsg_release(u);

    EXPECT_EQ(nullptr, qel_xmsg_unpack(p.data(), p.size() - 1));
    EXPECT_EQ(nullptr, qel_xmsg_unpack(p.data(), 15));
    u = qel_xmsg_unpack(p.data(), p.size() + 0); // exact
    EXPECT_NE(nullptr, u);
    qel_xmsg_release(u);
    Bytes longer = p + "trailing";
    u = unpack(longer); // a longer buffer is fine
    ASSERT_NE(nullptr, u);
    EXPECT_EQ(p, pack(u));
    qel_xmsg_release(u);

    for (size_t bit = 0; bit < 32; ++bit) {
        Bytes bad = p;
        bad[4 + bit / 8] ^= static_cast<char>(1 << (bit % 8));
        EXPECT_EQ(nullptr, unpack(bad)) << bit;
    }
    for (size_t i = 16; i < p.size(); ++i) { // any flipped area bit changes H
        Bytes bad = p;
        bad[i] ^= 0x10;
        EXPECT_EQ(nullptr, unpack(bad)) << i;
    }
    Bytes other = p;
    memcpy(&other[0], "ABCD", 4);
    u = unpack(other);
    ASSERT_NE(nullptr, u);
    EXPECT_EQ(p, pack(u)); // the packer writes its own magic
    qel_xmsg_release(u);

    // The entry count is taken as it stands.
    Bytes counted = p;
    uint32_t count = 77;
    memcpy(&counted[8], &count, 4);
    u = unpack(counted);
    ASSERT_NE(nullptr, u);
    EXPECT_EQ(76u, qel_xmsg_nelem(u));
    qel_xmsg_release(u);
    qel_xmsg_release(m);
}

TEST(Xmsg, UnpackRewritesNextLinksAndKeepsDeletions)
{
    qel_xmsg *m = sample();
    Bytes p = pack(m);
    Bytes scrambled = p;
    // Garbage in every next link except the creator's: rebuilt from scratch.
    for (uint32_t off = 0, n = 0; off + 16 < p.size(); ++n) {
        uint16_t klen;
        uint32_t vlen;
        memcpy(&vlen, &p[16 + off + 4], 4);
        memcpy(&klen, &p[16 + off + 8], 2);
        if (n > 0)
            memcpy(&scrambled[16 + off], "\xEF\xBE\xAD\xDE", 4);
        off += (klen + vlen + 16) & ~3u;
    }
    qel_xmsg *u = unpack(reseal(scrambled));
    ASSERT_NE(nullptr, u);
    EXPECT_EQ(p, pack(u));
    EXPECT_EQ(nullptr, qel_xmsg_get(u, "key3", 4, nullptr, nullptr));
    EXPECT_EQ(iterate(m), iterate(u));
    qel_xmsg_release(u);
    qel_xmsg_release(m);
}

TEST(Xmsg, UnpackEveryPrefix)
{
    qel_xmsg *m = sample(20);
    Bytes p = pack(m);
    // Entry boundaries of the area.
    std::vector<uint32_t> bounds = {0};
    for (uint32_t off = 0; off < m->used;) {
        const auto *e = reinterpret_cast<const qel_xmsg_entry *>(m->area + off);
        off += (e->klen + e->vlen + 16) & ~3u;
        bounds.push_back(off);
    }
    for (size_t len = 0; len < p.size(); ++len) {
        // As cut: the header claims more than there is.
        Bytes cut = p.substr(0, len);
        EXPECT_EQ(nullptr, unpack(cut)) << len;
        if (len < 16)
            continue;
        // Cut and resealed: only a cut at an entry boundary tiles the area.
        uint32_t used = static_cast<uint32_t>(len - 16);
        bool boundary = std::find(bounds.begin(), bounds.end(), used) != bounds.end();
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
    auto edit = [&](size_t at, const void *bytes, size_t n) {
        Bytes b = p;
        memcpy(&b[at], bytes, n);
        return reseal(b);
    };
    uint32_t v32;
    uint16_t v16;
    uint8_t v8;
    v16 = 0;
    EXPECT_EQ(nullptr, unpack(edit(e + 8, &v16, 2))) << "key length 0";
    v16 = 0;
    EXPECT_EQ(nullptr, unpack(edit(16 + 8, &v16, 2))) << "creator key length 0";
    v32 = 9; // total 28: one byte past the area
    EXPECT_EQ(nullptr, unpack(edit(e + 4, &v32, 4))) << "value past the end";
    v32 = 0xFFFFFFF0u;
    EXPECT_EQ(nullptr, unpack(edit(e + 4, &v32, 4))) << "huge value length";
    v16 = 0xFFFF;
    EXPECT_EQ(nullptr, unpack(edit(e + 8, &v16, 2))) << "huge key length";
    v8 = 2;
    EXPECT_EQ(nullptr, unpack(edit(e + 11, &v8, 1))) << "pad count";
    v8 = 'X';
    EXPECT_EQ(nullptr, unpack(edit(e + 12 + 3 + 5, &v8, 1))) << "no NUL after the value";

    // Used bytes not a multiple of 4, or a trailing partial header.
    Bytes tail = p + Bytes(3, '\0');
    EXPECT_EQ(nullptr, unpack(reseal(tail, true)));
    tail = p + Bytes(12, '\0'); // a header of key length 0
    EXPECT_EQ(nullptr, unpack(reseal(tail, true)));

    // Tiling ones still unpack: flags other than deleted, filler that is not zero.
    v8 = 0x81;
    qel_xmsg *u = unpack(edit(e + 10, &v8, 1));
    ASSERT_NE(nullptr, u);
    EXPECT_EQ(nullptr, qel_xmsg_get(u, "key", 3, nullptr, nullptr)); // bit 0: deleted
    qel_xmsg_release(u);
    v8 = 0x7F;
    u = unpack(edit(e + 23, &v8, 1));
    ASSERT_NE(nullptr, u);
    EXPECT_STREQ("value", static_cast<const char *>(qel_xmsg_get(u, "key", 3, nullptr, nullptr)));
    qel_xmsg_release(u);
    qel_xmsg_release(m);
}

TEST(Xmsg, LargeMessagesRoundTrip)
{
    // Several hundred KiB: entries of every size straddle the slices in which
    // unpacking copies and relinks.
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    qel_xmsg *m = qel_xmsg_new("large");
    Model model("large");
    std::vector<Bytes> keys;
    while (m->used < 400 * 1024) {
        Bytes k = rng.bytes(rng.range(1, 12), 'a', 'p');
        Bytes v = rng.bytes(rng.chance(10) ? rng.range(1000, 70000) : rng.range(0, 40));
        ASSERT_EQ(0, add(m, k, v));
        model.entries.push_back({k, v, false});
        if (keys.size() < 50)
            keys.push_back(k);
    }
    qel_xmsg_del(m, keys[3].data(), static_cast<uint16_t>(keys[3].size()));
    for (auto &e : model.entries)
        if (&e != &model.entries[0] && e.key == keys[3])
            e.deleted = true;
    Bytes p = pack(m);
    EXPECT_EQ(model.packed(), p);
    qel_xmsg *u = unpack(p);
    ASSERT_NE(nullptr, u);
    expect_matches(u, model, keys);
    qel_xmsg_release(u);

    // A broken entry far into the area, behind a right check value.
    uint32_t off = 0, last = 0;
    while (off < m->used) {
        last = off;
        const auto *e = reinterpret_cast<const qel_xmsg_entry *>(m->area + off);
        off += (e->klen + e->vlen + 16) & ~3u;
    }
    Bytes bad = p;
    bad[16 + last + 11] ^= 1; // the last entry's pad count
    EXPECT_EQ(nullptr, unpack(reseal(bad)));
    bad = p;
    bad[16 + last + 4] ^= 4; // its value length
    EXPECT_EQ(nullptr, unpack(reseal(bad)));
    qel_xmsg_release(m);
}

TEST(Xmsg, EmptyAreaRoundTrips)
{
    Bytes p = "XMSG";
    put32(p, 5318); // H of no bytes is the seed
    put32(p, 0);
    put32(p, 0);
    qel_xmsg *u = unpack(p);
    ASSERT_NE(nullptr, u);
    EXPECT_EQ(nullptr, qel_xmsg_get_creator(u));
    EXPECT_EQ(nullptr, qel_xmsg_first(u));
    EXPECT_EQ(p, pack(u));
    qel_xmsg *d = qel_xmsg_dup(u);
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(p, pack(d));
    qel_xmsg_release(d);
    qel_xmsg_release(u);
}

// ---- iteration and the debug listing ----------------------------------------

TEST(Xmsg, IterationIsOldestFirstAndSkipsDeleted)
{
    qel_xmsg *m = qel_xmsg_new("t");
    add(m, "a", "1");
    add(m, "b", "2");
    add(m, "a", "3");
    add(m, "c", "4");
    qel_xmsg_del(m, "b", 1);
    std::vector<std::pair<Bytes, Bytes>> want = {{"a", "1"}, {"a", "3"}, {"c", "4"}};
    EXPECT_EQ(want, iterate(m));
    qel_xmsg_del(m, "a", 1);
    qel_xmsg_del(m, "c", 1);
    EXPECT_EQ(nullptr, qel_xmsg_first(m));
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

// ---- duplication -----------------------------------------------------------------

TEST(Xmsg, DupCopiesTheWholeCapacity)
{
    qel_xmsg *m = sample();
    qel_xmsg_retain(m);
    qel_xmsg *d = qel_xmsg_dup(m);
    ASSERT_NE(nullptr, d);
    EXPECT_EQ(1, qel_xmsg_nref(d));
    EXPECT_EQ(m->capacity, d->capacity);
    EXPECT_EQ(m->used, d->used);
    EXPECT_EQ(m->count, d->count);
    EXPECT_EQ(0, memcmp(m->bucket, d->bucket, sizeof m->bucket));
    EXPECT_EQ(0, memcmp(m->area, d->area, m->capacity));
    EXPECT_NE(m->area, d->area);
    Bytes before = pack(m);
    EXPECT_EQ(before, pack(d));
    add(d, "new", "entry");
    qel_xmsg_del(d, "key1", 4);
    EXPECT_EQ(before, pack(m));
    EXPECT_NE(nullptr, qel_xmsg_get(m, "key1", 4, nullptr, nullptr));
    qel_xmsg_release(d);
    qel_xmsg_release(m);
    qel_xmsg_release(m);
}

// ---- allocation failures are returned, never fatal ---------------------------------

struct NoInjection {
    ~NoInjection() { qel::detail::fail_allocations(0, 0); }
};

TEST(Xmsg, AllocationFailuresAreReturned)
{
    NoInjection guard;
    using qel::detail::fail_allocations;

    fail_allocations(0, 1);
    EXPECT_EQ(nullptr, qel_xmsg_new("t"));

    // The object, but not its area: a message without a creator entry.
    fail_allocations(1, 1);
    qel_xmsg *bare = qel_xmsg_new("t");
    fail_allocations(0, 0);
    ASSERT_NE(nullptr, bare);
    EXPECT_EQ(nullptr, qel_xmsg_get_creator(bare));
    EXPECT_EQ(nullptr, qel_xmsg_first(bare));
    EXPECT_EQ(16u, qel_xmsg_pack_size(bare));
    EXPECT_EQ(0xFFFFFFFFu, qel_xmsg_nelem(bare));
    EXPECT_EQ(0, add(bare, "k", "first")); // takes the creator entry's place
    EXPECT_STREQ("first", qel_xmsg_get_creator(bare));
    EXPECT_EQ(nullptr, qel_xmsg_get(bare, "k", 1, nullptr, nullptr));
    EXPECT_EQ(0u, qel_xmsg_nelem(bare));
    qel_xmsg_release(bare);

    qel_xmsg *m = sample();
    Bytes before = pack(m);
    uint32_t cap = m->capacity;
    Bytes big(cap, 'v');
    fail_allocations(0, 1);
    EXPECT_EQ(-1, add(m, "k", big));
    EXPECT_EQ(before, pack(m));
    EXPECT_EQ(cap, m->capacity);
    EXPECT_EQ(0, add(m, "k", big)); // usable afterwards
    before = pack(m);

    for (long skip = 0; skip < 2; ++skip) {
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

    // Every step of a whole life, failing each allocation in turn.
    for (long skip = 0;; ++skip) {
        fail_allocations(skip, 1);
        qel_xmsg *x = qel_xmsg_new("life");
        bool ok = x != nullptr && add(x, "a", big) == 0;
        qel_xmsg *d = qel_xmsg_dup(x);
        void *aux = qel_xmsg_pack_aux(x, nullptr);
        qel_xmsg *u = aux ? qel_xmsg_unpack(aux, qel_xmsg_pack_size(x)) : nullptr;
        ok = ok && d && aux && u;
        fail_allocations(0, 0);
        free(aux);
        qel_xmsg_release(u);
        qel_xmsg_release(d);
        qel_xmsg_release(x);
        if (ok)
            break;
        ASSERT_LT(skip, 20);
    }
    qel_xmsg_release(m);
}

// ---- the check value --------------------------------------------------------------

TEST(Xmsg, CheckValueAndBucketShortcutEqualTheByteSerialHash)
{
    using namespace qel::xmsg_internal;
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    std::vector<unsigned char> src(9000), dst(9000);
    for (int i = 0; i < 600; ++i) {
        size_t len = i < 520 ? static_cast<size_t>(i) : rng.range(0, 8900);
        size_t at = rng.range(0, 64);
        uint32_t seed = rng.chance(50) ? qel::detail::kHashSeed : static_cast<uint32_t>(rng.next());
        for (size_t j = 0; j < len; ++j)
            src[at + j] = rng.chance(10) ? 0xFF : static_cast<unsigned char>(rng.next());
        uint32_t want = qel::detail::hash33(src.data() + at, len, seed);
        ASSERT_EQ(want, check_value(src.data() + at, len, seed)) << len;
        ASSERT_EQ(want, check_value_portable(src.data() + at, len, seed)) << len;
        size_t to = rng.range(0, 64);
        ASSERT_EQ(want, check_value_copy(dst.data() + to, src.data() + at, len, seed)) << len;
        ASSERT_EQ(0, memcmp(dst.data() + to, src.data() + at, len));
    }
    // The bucket shortcut of the chain rebuild.
    for (int i = 0; i < 5000; ++i) {
        std::string key = rng.bytes(i < 64 ? static_cast<size_t>(i) : rng.range(1, 300));
        const auto *k = reinterpret_cast<const unsigned char *>(key.data());
        ASSERT_EQ(qel::detail::hash33(k, key.size()) & 15, bucket_by_sum(k, key.size())) << key.size();
    }
    // All bytes at their largest: the word sums are at their extremes.
    std::vector<unsigned char> ff(4096, 0xFF);
    EXPECT_EQ(qel::detail::hash33(ff.data(), ff.size()), check_value(ff.data(), ff.size(), 5318));
    if (!check_value_vectorised())
        GTEST_LOG_(INFO) << "no vector kernel on this processor: the portable form was checked twice";
}

} // namespace
