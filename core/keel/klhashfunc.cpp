#include "keel/klhashfunc.h"

#include "keel/klassert.h"
#include "keel/klmalloc.h"

#include <cstring>
#include <new>
#include <utility>

namespace {

constexpr uint32_t kFnv32Basis = 0x811c9dc5u;
constexpr uint32_t kFnv32Prime = 16777619u;
constexpr uint64_t kFnv64Basis = 0xcbf29ce484222325ull;
constexpr uint64_t kFnv64Prime = 0x100000001b3ull;

// Plain FNV-1a spreads its last bytes poorly into the high bits; hash containers take
// the low bits, so the 32-bit form stirs the result once more.
uint32_t MixFnv32(uint32_t h) {
    h += h << 13;
    h ^= h >> 7;
    h += h << 3;
    h ^= h >> 17;
    h += h << 5;
    return h;
}

// ---- MD5 (RFC 1321) ----

constexpr uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};
constexpr int kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
constexpr uint32_t kInitialState[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
constexpr uint32_t kBlockBytes = 64;

constexpr uint32_t Rotl(uint32_t x, int s) { return (x << s) | (x >> (32 - s)); }

// The round function of round Round added to sum. The part that waits on b, the word
// just computed, is added last so the rest overlaps the previous step.
template <int Round>
constexpr uint32_t AddMix(uint32_t sum, uint32_t b, uint32_t c, uint32_t d) {
    if constexpr (Round == 0) return sum + (d ^ (b & (c ^ d))); // (b & c) | (~b & d)
    else if constexpr (Round == 1) return sum + (c & ~d) + (b & d); // disjoint bits: | is +
    else if constexpr (Round == 2) return sum + ((c ^ d) ^ b);
    else return sum + (c ^ (b | ~d));
}

// Which message word step Step of a round reads.
template <int Round>
constexpr int WordIndex(int step) {
    if constexpr (Round == 0) return step;
    else if constexpr (Round == 1) return (5 * step + 1) & 15;
    else if constexpr (Round == 2) return (3 * step + 5) & 15;
    else return (7 * step) & 15;
}

// One step works in place on v: the roles a, b, c, d move one slot back per step, so
// the four words never have to be shuffled.
template <int Round, int Step>
inline void Md5Step(uint32_t* v, const uint32_t* x) {
    constexpr int a = (4 - Step) & 3, b = (5 - Step) & 3, c = (6 - Step) & 3, d = (7 - Step) & 3;
    const uint32_t t = AddMix<Round>(v[a] + x[WordIndex<Round>(Step)] + kSine[Round * 16 + Step], v[b], v[c], v[d]);
    v[a] = v[b] + Rotl(t, kShift[Round][Step & 3]);
}

template <int Round, int... Steps>
inline void Md5Round(uint32_t* v, const uint32_t* x, std::integer_sequence<int, Steps...>) {
    (Md5Step<Round, Steps>(v, x), ...);
}

uint32_t LoadLittle32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

void StoreLittle32(uint8_t* p, uint32_t value) {
    for (int i = 0; i < 4; ++i) p[i] = uint8_t(value >> (8 * i));
}

void Md5Blocks(uint32_t* state, const uint8_t* data, size_t blocks) {
    constexpr auto steps = std::make_integer_sequence<int, 16>{};
    for (; blocks != 0; --blocks, data += kBlockBytes) {
        uint32_t x[16];
        for (int i = 0; i < 16; ++i) x[i] = LoadLittle32(data + 4 * i);
        uint32_t v[4] = {state[0], state[1], state[2], state[3]};
        Md5Round<0>(v, x, steps);
        Md5Round<1>(v, x, steps);
        Md5Round<2>(v, x, steps);
        Md5Round<3>(v, x, steps);
        for (int i = 0; i < 4; ++i) state[i] += v[i];
    }
}

} // namespace

struct klMD5Context {
    uint32_t mState[4];
    uint64_t mBitCount;
    uint8_t mBuffer[kBlockBytes];
};

uint32_t klHashBytes32(const void* data, uint32_t len) {
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    uint32_t h = kFnv32Basis;
    for (uint32_t i = 0; i < len; ++i) h = (h ^ bytes[i]) * kFnv32Prime;
    return MixFnv32(h);
}

uint32_t klHashString32(const char* text) {
    return klHashBytes32(text, uint32_t(std::strlen(text)));
}

uint64_t klHashBytes64(const void* data, uint32_t len) {
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    uint64_t h = kFnv64Basis;
    for (uint32_t i = 0; i < len; ++i) h = (h ^ bytes[i]) * kFnv64Prime;
    return h;
}

uint64_t klHashString64(const char* text) {
    return klHashBytes64(text, uint32_t(std::strlen(text)));
}

klHashMD5::klHashMD5() : _internal(nullptr) { Start(); }

klHashMD5::~klHashMD5() { klFree(_internal); }

void klHashMD5::Start() {
    if (!_internal) _internal = new (klAlloc(sizeof(klMD5Context))) klMD5Context;
    std::memcpy(_internal->mState, kInitialState, sizeof(kInitialState));
    _internal->mBitCount = 0;
}

void klHashMD5::Update(const void* data, uint32_t len) {
    // The reports spell null the way C does; every keel report reads that way.
    if (!klAssertAs(_internal != nullptr, "_internal != NULL") || len == 0) return;
    klMD5Context& ctx = *_internal;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    uint32_t used = uint32_t(ctx.mBitCount >> 3) & (kBlockBytes - 1);
    ctx.mBitCount += uint64_t(len) << 3;
    if (used != 0) {
        const uint32_t take = len < kBlockBytes - used ? len : kBlockBytes - used;
        std::memcpy(ctx.mBuffer + used, bytes, take);
        bytes += take;
        len -= take;
        used += take;
        if (used < kBlockBytes) return;
        Md5Blocks(ctx.mState, ctx.mBuffer, 1);
    }
    Md5Blocks(ctx.mState, bytes, len / kBlockBytes);
    std::memcpy(ctx.mBuffer, bytes + (len & ~(kBlockBytes - 1)), len % kBlockBytes);
}

klMD5Digest klHashMD5::Finish() {
    klMD5Digest digest = {};
    if (!klAssertAs(_internal != nullptr, "_internal != NULL")) return digest;
    // Padding: one 0x80 byte, zeros up to 8 bytes short of a block, then the bit count.
    uint8_t tail[kBlockBytes + 8] = {0x80};
    const uint64_t bits = _internal->mBitCount;
    const uint32_t used = uint32_t(bits >> 3) & (kBlockBytes - 1);
    const uint32_t padding = (used < 56 ? 56 : 120) - used;
    for (int i = 0; i < 8; ++i) tail[padding + i] = uint8_t(bits >> (8 * i));
    Update(tail, padding + 8);
    for (int i = 0; i < 4; ++i) StoreLittle32(digest.mBytes + 4 * i, _internal->mState[i]);
    klFree(_internal);
    _internal = nullptr;
    return digest;
}
