#include "dff/Md5Lanes.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace dff {

namespace {

// The per-step constants and rotations of RFC 1321, and which message word each step takes.
constexpr std::uint32_t kSine[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};
constexpr int kShift[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

std::uint32_t littleEndianWord(const unsigned char* p) {
  std::uint32_t word;
  std::memcpy(&word, p, 4);  // x86 and every other target this builds for are little-endian
  return word;
}

// Adds the bytes counted to a context the way MD5_Update keeps its count: in bits, in two words.
void countBytes(MD5_CTX& context, std::size_t bytes) {
  const std::uint64_t bits = (static_cast<std::uint64_t>(context.Nh) << 32 | context.Nl) +
                             (static_cast<std::uint64_t>(bytes) << 3);
  context.Nl = static_cast<MD5_LONG>(bits);
  context.Nh = static_cast<MD5_LONG>(bits >> 32);
}

#if defined(__x86_64__) && defined(__GNUC__)

// 64 readable bytes for lanes that carry no message.
const unsigned char* kSineBytes() { return reinterpret_cast<const unsigned char*>(kSine); }

// The compression function on N messages at once, one per lane of a vector of 32-bit words.
// Lanes run `blocks[l]` blocks each; a lane that has run its share keeps its state.
template <int N, class V>
__attribute__((always_inline)) inline void compressLanes(Md5Lane* const* lanes, int count) {
  V a, b, c, d, left;
  std::size_t most = 0;
  for (int l = 0; l < N; ++l) {
    const MD5_CTX* context = l < count ? lanes[l]->context : nullptr;
    a[l] = context ? context->A : 0;
    b[l] = context ? context->B : 0;
    c[l] = context ? context->C : 0;
    d[l] = context ? context->D : 0;
    const std::size_t blocks = l < count ? lanes[l]->length / 64 : 0;
    left[l] = static_cast<std::uint32_t>(blocks);
    if (blocks > most) most = blocks;
  }
  for (std::size_t block = 0; block < most; ++block) {
    V m[16];
    for (int l = 0; l < N; ++l) {
      // A lane that has run its share reads its own first block again; the result is dropped.
      const unsigned char* p =
          l < count ? lanes[l]->data + 64 * (block < left[l] ? block : 0) : kSineBytes();
      for (int w = 0; w < 16; ++w) m[w][l] = littleEndianWord(p + 4 * w);
    }
    const V a0 = a, b0 = b, c0 = c, d0 = d;
#pragma GCC unroll 64
    for (int step = 0; step < 64; ++step) {
      V f;
      int g;
      const int round = step / 16;
      if (round == 0) {
        f = d ^ (b & (c ^ d));
        g = step;
      } else if (round == 1) {
        f = c ^ (d & (b ^ c));
        g = (5 * step + 1) % 16;
      } else if (round == 2) {
        f = b ^ c ^ d;
        g = (3 * step + 5) % 16;
      } else {
        f = c ^ (b | ~d);
        g = (7 * step) % 16;
      }
      const int s = kShift[round][step % 4];
      V x = a + f + kSine[step] + m[g];
      x = (x << s) | (x >> (32 - s));
      a = d;
      d = c;
      c = b;
      b = b + x;
    }
    const V live = (V)((V{} + static_cast<std::uint32_t>(block)) < left);  // all ones where it ran
    a = ((a0 + a) & live) | (a0 & ~live);
    b = ((b0 + b) & live) | (b0 & ~live);
    c = ((c0 + c) & live) | (c0 & ~live);
    d = ((d0 + d) & live) | (d0 & ~live);
  }
  for (int l = 0; l < count; ++l) {
    MD5_CTX& context = *lanes[l]->context;
    context.A = a[l];
    context.B = b[l];
    context.C = c[l];
    context.D = d[l];
  }
}

typedef std::uint32_t V16 __attribute__((vector_size(64)));
typedef std::uint32_t V8 __attribute__((vector_size(32)));

__attribute__((target("avx512f,avx512vl"))) void compress16(Md5Lane* const* lanes, int count) {
  compressLanes<16, V16>(lanes, count);
}

__attribute__((target("avx2"))) void compress8(Md5Lane* const* lanes, int count) {
  compressLanes<8, V8>(lanes, count);
}

std::size_t detectWidth() {
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl")) return 16;
  if (__builtin_cpu_supports("avx2")) return 8;
  return 1;
}

#else

std::size_t detectWidth() { return 1; }

#endif

}  // namespace

std::size_t md5LaneWidth() {
  static const std::size_t width = detectWidth();
  return width;
}

void md5UpdateMany(Md5Lane* lanes, std::size_t count) {
  md5UpdateMany(lanes, count, md5LaneWidth());
}

void md5UpdateMany(Md5Lane* lanes, std::size_t count, std::size_t width) {
  // Only the widths there are paths for, and no wider than this processor goes.
  width = std::min(width, md5LaneWidth());
  if (width != 16 && width != 8) width = 1;
  // Lanes the vector path takes: a context between blocks, and at least one whole block.
  Md5Lane* batch[16];
  int taken = 0;
  auto flush = [&] {
#if defined(__x86_64__) && defined(__GNUC__)
    if (width == 16) {
      compress16(batch, taken);
    } else {
      compress8(batch, taken);
    }
#endif
    for (int l = 0; l < taken; ++l) {
      Md5Lane& lane = *batch[l];
      const std::size_t whole = lane.length / 64 * 64;
      countBytes(*lane.context, whole);
      MD5_Update(lane.context, lane.data + whole, lane.length - whole);
    }
    taken = 0;
  };
  for (std::size_t i = 0; i < count; ++i) {
    Md5Lane& lane = lanes[i];
    if (width == 1 || lane.context->num != 0 || lane.length < 64) {
      MD5_Update(lane.context, lane.data, lane.length);
      continue;
    }
    batch[taken++] = &lane;
    if (static_cast<std::size_t>(taken) == width) flush();
  }
  if (taken > 0) flush();
}

}  // namespace dff
