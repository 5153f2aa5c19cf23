// The message: packing and unpacking against memcpy of the same bytes (the
// limit), the check value against the byte-serial hash, and a map of 1000
// short pairs built, sent through the wire form and looked up, against
// msgpack-c.
// Naming: BM_<operation>__<implementation>; tools/bench_report.py prints each
// peer's time over ours per operation.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "qel_xmsg.h"

#include "base/internal.h"
#include "config/xmsg_impl.h"

#if MORBASE_HAVE_MSGPACK
#include <msgpack.h>
#endif

namespace {

// A message of n entries: 8-byte keys, values sized so that the area is
// about 1 MiB (never below 8 bytes: 100000 entries make about 3 MiB).
qel_xmsg *make_message(int n)
{
    qel_xmsg *m = qel_xmsg_new("bench");
    size_t vlen = (1u << 20) / static_cast<size_t>(n);
    vlen = vlen > 8 + 16 ? vlen - 8 - 16 : 8;
    std::string value(vlen, 'v');
    char key[16];
    for (int i = 0; i < n; ++i) {
        snprintf(key, sizeof key, "k%07d", i);
        value[0] = static_cast<char>(i);
        qel_xmsg_add(m, key, 8, value.data(), static_cast<uint32_t>(value.size()));
    }
    return m;
}

void BM_xmsg_pack__qel(benchmark::State &state)
{
    qel_xmsg *m = make_message(static_cast<int>(state.range(0)));
    std::vector<char> buf(qel_xmsg_pack_size(m));
    for (auto _ : state) {
        benchmark::DoNotOptimize(qel_xmsg_pack(m, buf.data(), buf.size()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buf.size()));
    state.counters["area_bytes"] = m->used;
    qel_xmsg_release(m);
}
BENCHMARK(BM_xmsg_pack__qel)->Arg(10)->Arg(1000)->Arg(100000);

void BM_xmsg_pack__memcpy(benchmark::State &state)
{
    qel_xmsg *m = make_message(static_cast<int>(state.range(0)));
    std::vector<char> src(qel_xmsg_pack_size(m), 'x'), dst(src.size());
    qel_xmsg_release(m);
    for (auto _ : state) {
        memcpy(dst.data(), src.data(), src.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * src.size()));
}
BENCHMARK(BM_xmsg_pack__memcpy)->Arg(10)->Arg(1000)->Arg(100000);

void BM_xmsg_unpack__qel(benchmark::State &state)
{
    qel_xmsg *m = make_message(static_cast<int>(state.range(0)));
    uint32_t size = 0;
    void *packed = qel_xmsg_pack_aux(m, &size);
    for (auto _ : state) {
        qel_xmsg *u = qel_xmsg_unpack(packed, size);
        benchmark::DoNotOptimize(u);
        qel_xmsg_release(u);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
    free(packed);
    qel_xmsg_release(m);
}
BENCHMARK(BM_xmsg_unpack__qel)->Arg(10)->Arg(1000)->Arg(100000);

// The limit for unpacking: one allocation and one copy of the same bytes.
void BM_xmsg_unpack__memcpy(benchmark::State &state)
{
    qel_xmsg *m = make_message(static_cast<int>(state.range(0)));
    std::vector<char> src(qel_xmsg_pack_size(m), 'x');
    qel_xmsg_release(m);
    for (auto _ : state) {
        void *dst = malloc(src.size());
        memcpy(dst, src.data(), src.size());
        benchmark::DoNotOptimize(dst);
        free(dst);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * src.size()));
}
BENCHMARK(BM_xmsg_unpack__memcpy)->Arg(10)->Arg(1000)->Arg(100000);

void BM_xmsg_check__qel(benchmark::State &state)
{
    std::vector<unsigned char> buf(static_cast<size_t>(state.range(0)), 0xA5);
    for (auto _ : state)
        benchmark::DoNotOptimize(qel::xmsg_internal::check_value(buf.data(), buf.size(), 5318));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buf.size()));
}
BENCHMARK(BM_xmsg_check__qel)->Arg(1 << 20);

void BM_xmsg_check__serial(benchmark::State &state)
{
    std::vector<unsigned char> buf(static_cast<size_t>(state.range(0)), 0xA5);
    for (auto _ : state)
        benchmark::DoNotOptimize(qel::detail::hash33(buf.data(), buf.size()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * buf.size()));
}
BENCHMARK(BM_xmsg_check__serial)->Arg(1 << 20);

// ---- a map of 1000 short pairs, end to end ----------------------------------------

constexpr int kPairs = 1000;

struct Pairs {
    std::vector<std::string> keys, values;
    Pairs()
    {
        char buf[16];
        for (int i = 0; i < kPairs; ++i) {
            snprintf(buf, sizeof buf, "key%04d", i);
            keys.emplace_back(buf);
            snprintf(buf, sizeof buf, "value%04d", i);
            values.emplace_back(buf);
        }
    }
};
const Pairs &pairs()
{
    static const Pairs *p = new Pairs;
    return *p;
}

qel_xmsg *build_map(const Pairs &p)
{
    qel_xmsg *m = qel_xmsg_new("bench");
    for (int i = 0; i < kPairs; ++i)
        qel_xmsg_add(m, p.keys[i].data(), static_cast<uint16_t>(p.keys[i].size()), p.values[i].data(),
                     static_cast<uint32_t>(p.values[i].size()));
    return m;
}

size_t lookup_all(const qel_xmsg *m, const Pairs &p)
{
    size_t sum = 0;
    for (int i = 0; i < kPairs; ++i) {
        uint32_t vlen = 0;
        qel_xmsg_get(m, p.keys[i].data(), static_cast<uint16_t>(p.keys[i].size()), &vlen, nullptr);
        sum += vlen;
    }
    return sum;
}

// Build, look every key up.
void BM_xmsg_map_build_lookup__qel(benchmark::State &state)
{
    const Pairs &p = pairs();
    for (auto _ : state) {
        qel_xmsg *m = build_map(p);
        benchmark::DoNotOptimize(lookup_all(m, p));
        qel_xmsg_release(m);
    }
}
BENCHMARK(BM_xmsg_map_build_lookup__qel);

// Build, pack, unpack, look every key up in what was unpacked.
void BM_xmsg_map_wire__qel(benchmark::State &state)
{
    const Pairs &p = pairs();
    for (auto _ : state) {
        qel_xmsg *m = build_map(p);
        uint32_t size = 0;
        void *packed = qel_xmsg_pack_aux(m, &size);
        qel_xmsg_release(m);
        qel_xmsg *u = qel_xmsg_unpack(packed, size);
        free(packed);
        benchmark::DoNotOptimize(lookup_all(u, p));
        qel_xmsg_release(u);
    }
}
BENCHMARK(BM_xmsg_map_wire__qel);

#if MORBASE_HAVE_MSGPACK
// msgpack-c: pack the map, unpack it, then look keys up. msgpack-c offers no
// lookup, so `msgpack` scans the unpacked map per key, and `msgpack_index`
// first indexes it in an unordered_map (what a user with many lookups does).
template <bool Index>
void map_msgpack(benchmark::State &state)
{
    const Pairs &p = pairs();
    for (auto _ : state) {
        msgpack_sbuffer sbuf;
        msgpack_sbuffer_init(&sbuf);
        msgpack_packer pk;
        msgpack_packer_init(&pk, &sbuf, msgpack_sbuffer_write);
        msgpack_pack_map(&pk, kPairs);
        for (int i = 0; i < kPairs; ++i) {
            msgpack_pack_str_with_body(&pk, p.keys[i].data(), p.keys[i].size());
            msgpack_pack_str_with_body(&pk, p.values[i].data(), p.values[i].size());
        }
        msgpack_unpacked result;
        msgpack_unpacked_init(&result);
        size_t off = 0;
        msgpack_unpack_next(&result, sbuf.data, sbuf.size, &off);
        const msgpack_object_map &map = result.data.via.map;
        size_t sum = 0;
        if constexpr (Index) {
            std::unordered_map<std::string_view, std::string_view> index;
            index.reserve(map.size);
            for (uint32_t j = 0; j < map.size; ++j)
                index.emplace(std::string_view(map.ptr[j].key.via.str.ptr, map.ptr[j].key.via.str.size),
                              std::string_view(map.ptr[j].val.via.str.ptr, map.ptr[j].val.via.str.size));
            for (int i = 0; i < kPairs; ++i)
                sum += index.find(p.keys[i])->second.size();
        } else {
            for (int i = 0; i < kPairs; ++i) {
                const std::string &k = p.keys[i];
                for (uint32_t j = 0; j < map.size; ++j) {
                    const msgpack_object_str &ks = map.ptr[j].key.via.str;
                    if (ks.size == k.size() && memcmp(ks.ptr, k.data(), ks.size) == 0) {
                        sum += map.ptr[j].val.via.str.size;
                        break;
                    }
                }
            }
        }
        benchmark::DoNotOptimize(sum);
        msgpack_unpacked_destroy(&result);
        msgpack_sbuffer_destroy(&sbuf);
    }
}
void BM_xmsg_map_wire__msgpack(benchmark::State &state)
{
    map_msgpack<false>(state);
}
void BM_xmsg_map_wire__msgpack_index(benchmark::State &state)
{
    map_msgpack<true>(state);
}
BENCHMARK(BM_xmsg_map_wire__msgpack);
BENCHMARK(BM_xmsg_map_wire__msgpack_index);
#endif

} // namespace
