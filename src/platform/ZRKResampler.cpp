// Lanczos-3 resampling in 16-bit fixed point, vectorised with Highway.
//
// The vertical pass runs first, because it is the one that touches every
// source pixel, and its arithmetic is the same for every byte of a row
// whatever the channel count: it needs no shuffles and no reductions. The
// horizontal pass then only sees as many rows as the output has. Memory
// stays bounded by a ring of source row pairs (at most the source's size, in
// practice a few dozen rows) and a few rows of intermediate values.
//
// Precision: weights are Q14 and sum to exactly 1 << 14, so a flat area stays
// exactly flat. Between the passes rows are int16 in Q6 (the value times 64),
// which keeps the ringing overshoot that an 8-bit row would clip. The
// absolute weights of one output sum to under 1.6 (Lanczos-3's lobes), so a
// Q6 value stays below 2^15 and every int32 sum below 2^30.

#include "platform/ZRKResampler.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numbers>
#include <utility>
#include <vector>

// Also build for AVX-512 with VNNI, whose fused multiply-add is the whole
// inner loop of both passes.
#ifndef HWY_WANT_AVX3_DL
#define HWY_WANT_AVX3_DL
#endif
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "platform/ZRKResampler.cpp"
#include <hwy/foreach_target.h>  // IWYU pragma: keep
#include <hwy/highway.h>
#include <hwy/cache_control.h>

#include "platform/ZRKPixelBuffer.h"
#include "platform/ZRKResamplerTargets.h"

#ifndef ZRK_RESAMPLER_SHARED
#define ZRK_RESAMPLER_SHARED

namespace zrk::detail::resampler {

constexpr int kWeightBits = 14;
constexpr int kMidBits = 6;  // fraction bits of the rows between the passes
constexpr int kVerticalShift = kWeightBits - kMidBits;
constexpr int kHorizontalShift = kWeightBits + kMidBits;
constexpr std::size_t kScratchAlignment = 64;  // a PixelBuffer's; enough for every vector load

// One axis: for each output coordinate, where its taps start in the source
// and their weights. Every output has the same number of taps (zero-padded),
// and first + taps never passes the end of the source.
struct Axis {
  int taps = 0;
  std::vector<int> first;
  std::vector<std::int16_t> weights;  // taps per output
};

// sinc(x) * sinc(x / 3) sampled finely enough that linear interpolation
// errs by about 1e-6, far below the Q14 step; a plan needs tens of thousands
// of kernel values and two sines each would cost more than the resampling.
class LanczosTable {
 public:
  static constexpr int kPerUnit = 1024;

  LanczosTable() : values_(3 * kPerUnit + 2) {
    values_[0] = 1.0;
    for (std::size_t i = 1; i < values_.size(); ++i) {
      const double x = static_cast<double>(i) / kPerUnit;
      if (x >= 3.0) break;  // the rest stays 0
      const double px = std::numbers::pi * x;
      values_[i] = 3.0 * std::sin(px) * std::sin(px / 3.0) / (px * px);
    }
  }

  double operator()(double x) const {
    x = std::abs(x) * kPerUnit;
    if (x >= 3 * kPerUnit) return 0.0;
    const auto i = static_cast<std::size_t>(x);
    const double f = x - static_cast<double>(i);
    return values_[i] + f * (values_[i + 1] - values_[i]);
  }

 private:
  std::vector<double> values_;
};

inline Axis makeAxis(int in, int out) {
  static const LanczosTable lanczos;
  const double scale = static_cast<double>(in) / out;
  const double filterScale = std::max(scale, 1.0);
  const double support = 3.0 * filterScale;

  // Windows first at their own lengths, then padded to the longest.
  std::vector<int> starts(static_cast<std::size_t>(out));
  std::vector<std::size_t> offsets(static_cast<std::size_t>(out) + 1);
  std::vector<std::int16_t> packed;
  std::vector<double> acc;
  std::vector<std::int16_t> q;
  int taps = 1;
  for (int i = 0; i < out; ++i) {
    const double center = (i + 0.5) * scale - 0.5;
    const int lo = static_cast<int>(std::floor(center - support));
    const int hi = static_cast<int>(std::ceil(center + support));
    const int clampedLo = std::clamp(lo, 0, in - 1);
    const int clampedHi = std::clamp(hi, 0, in - 1);
    acc.assign(static_cast<std::size_t>(clampedHi - clampedLo + 1), 0.0);
    double total = 0;
    for (int j = lo; j <= hi; ++j) {
      const double w = lanczos((j - center) / filterScale);
      acc[static_cast<std::size_t>(std::clamp(j, 0, in - 1) - clampedLo)] += w;
      total += w;
    }
    // Quantising the running sum rather than each weight keeps the total
    // exact and every weight within one step of its true value.
    q.resize(acc.size());
    double running = 0;
    int previous = 0;
    for (std::size_t k = 0; k < acc.size(); ++k) {
      running += acc[k] / total;
      const int now = k + 1 == acc.size() ? 1 << kWeightBits
                                          : static_cast<int>(std::floor(running * (1 << kWeightBits) + 0.5));
      q[k] = static_cast<std::int16_t>(std::clamp(now - previous, -32768, 32767));
      previous = now;
    }
    std::size_t begin = 0, end = q.size();
    while (begin + 1 < end && q[begin] == 0) ++begin;
    while (end - 1 > begin && q[end - 1] == 0) --end;
    starts[static_cast<std::size_t>(i)] = clampedLo + static_cast<int>(begin);
    packed.insert(packed.end(), q.begin() + static_cast<std::ptrdiff_t>(begin),
                  q.begin() + static_cast<std::ptrdiff_t>(end));
    offsets[static_cast<std::size_t>(i) + 1] = packed.size();
    taps = std::max(taps, static_cast<int>(end - begin));
  }

  Axis axis;
  axis.taps = taps;
  axis.first.resize(static_cast<std::size_t>(out));
  axis.weights.assign(static_cast<std::size_t>(out) * static_cast<std::size_t>(taps), 0);
  for (int i = 0; i < out; ++i) {
    const auto ui = static_cast<std::size_t>(i);
    // Windows are inside the source, so the longest one fits and a window
    // near the end can start earlier with leading zeros.
    const int first = std::min(starts[ui], in - taps);
    axis.first[ui] = first;
    std::copy(packed.begin() + static_cast<std::ptrdiff_t>(offsets[ui]),
              packed.begin() + static_cast<std::ptrdiff_t>(offsets[ui + 1]),
              axis.weights.begin() + static_cast<std::ptrdiff_t>(ui * static_cast<std::size_t>(taps)) +
                  (starts[ui] - first));
  }
  return axis;
}

struct Job {
  PixelView src;
  MutablePixelView dst;
  Axis horizontal;
  Axis vertical;
};

inline const std::uint8_t* sourceRow(const PixelView& v, int y) { return v.data + v.stride * y; }

// Output row y of the vertical pass, in Q6, over all source columns.
inline void verticalRowScalar(const Job& job, int y, std::int16_t* mid) {
  const Axis& axis = job.vertical;
  const std::size_t n = static_cast<std::size_t>(job.src.width) * static_cast<std::size_t>(job.src.channels);
  const std::int16_t* w = axis.weights.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(axis.taps);
  const int first = axis.first[static_cast<std::size_t>(y)];
  for (std::size_t x = 0; x < n; ++x) {
    std::int32_t sum = 0;
    for (int k = 0; k < axis.taps; ++k) sum += w[k] * sourceRow(job.src, first + k)[x];
    sum = (sum + (1 << (kVerticalShift - 1))) >> kVerticalShift;
    mid[x] = static_cast<std::int16_t>(std::clamp(sum, -32768, 32767));
  }
}

inline void horizontalRowScalar(const Job& job, const std::int16_t* mid, std::uint8_t* out) {
  const Axis& axis = job.horizontal;
  const int channels = job.src.channels;
  for (int i = 0; i < job.dst.width; ++i) {
    const std::int16_t* w = axis.weights.data() + static_cast<std::size_t>(i) * static_cast<std::size_t>(axis.taps);
    const std::int16_t* s = mid + static_cast<std::ptrdiff_t>(axis.first[static_cast<std::size_t>(i)]) * channels;
    for (int c = 0; c < channels; ++c) {
      std::int32_t sum = 0;
      for (int k = 0; k < axis.taps; ++k) sum += w[k] * s[k * channels + c];
      sum = (sum + (1 << (kHorizontalShift - 1))) >> kHorizontalShift;
      out[i * channels + c] = static_cast<std::uint8_t>(std::clamp(sum, 0, 255));
    }
  }
}

inline std::uint8_t* destinationRow(const MutablePixelView& v, int y) { return v.data + v.stride * y; }

}  // namespace zrk::detail::resampler

#endif  // ZRK_RESAMPLER_SHARED

HWY_BEFORE_NAMESPACE();
#if HWY_TARGET == HWY_AVX3_DL && HWY_COMPILER_GCC_ACTUAL
// This Highway's AVX3_DL flags name only the 256-bit VNNI, which every CPU
// of that target extends to 512 bits.
#pragma GCC target("avx512vnni")
#define ZRK_RESAMPLER_DPWSSD 1
#else
#define ZRK_RESAMPLER_DPWSSD 0
#endif
namespace zrk::detail::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
using namespace zrk::detail::resampler;

#if HWY_TARGET == HWY_SCALAR

bool resampleImpl(const Job& job) {
  const std::size_t n = static_cast<std::size_t>(job.src.width) * static_cast<std::size_t>(job.src.channels);
  std::vector<std::int16_t> mid(n);
  for (int y = 0; y < job.dst.height; ++y) {
    verticalRowScalar(job, y, mid.data());
    horizontalRowScalar(job, mid.data(), destinationRow(job.dst, y));
  }
  return true;
}

#else

using D16 = hn::ScalableTag<std::int16_t>;
using D32 = hn::Repartition<std::int32_t, D16>;
using D8 = hn::ScalableTag<std::uint8_t>;

// Column pairs per tile of the vertical pass: enough independent sums to
// hide the latency of the multiply-add chains.
constexpr std::size_t kVerticalUnroll = 4;

// The vertical pass reads source rows in pairs: for rows a and b, the bytes
// go a0 a1 b0 b1, a2 a3 b2 b3, ... Read as 16-bit lanes, masking the high
// bytes leaves (a0, b0), (a2, b2), ... and shifting right by 8 leaves
// (a1, b1), (a3, b3), ...: int16 pairs ready for a pairwise multiply-add,
// for the price of one plain operation per vector instead of a shuffle.
// Pair j holds rows 2j and 2j + 1; pairs live in a ring as long as some
// output row still needs them.
static_assert(std::endian::native == std::endian::little, "pair layouts assume little-endian lanes");

class PairRing {
 public:
  // `storage` holds slots * 2 * paddedBytes bytes.
  PairRing(const PixelView& src, std::size_t slots, std::size_t paddedBytes, std::uint8_t* storage)
      : src_(src),
        rowBytes_(static_cast<std::size_t>(src.width) * static_cast<std::size_t>(src.channels)),
        stride_(2 * paddedBytes),
        slots_(slots),
        storage_(storage),
        built_(slots, -1) {
    std::memset(storage_, 0, slots * stride_);
  }

  const std::uint8_t* pair(int j) {
    const std::size_t slot = static_cast<std::size_t>(j) % slots_;
    std::uint8_t* out = storage_ + slot * stride_;
    if (built_[slot] != j) {
      build(j, out);
      built_[slot] = j;
    }
    return out;
  }

 private:
  void build(int j, std::uint8_t* out) const {
    const std::uint8_t* a = sourceRow(src_, std::min(2 * j, src_.height - 1));
    const std::uint8_t* b = sourceRow(src_, std::min(2 * j + 1, src_.height - 1));
    const D8 d8;
    const hn::Repartition<std::uint16_t, D8> d16;
    const std::size_t n8 = hn::Lanes(d8);
    std::size_t x = 0;
    for (; x + n8 <= rowBytes_; x += n8) {
      hn::StoreInterleaved2(hn::BitCast(d16, hn::LoadU(d8, a + x)), hn::BitCast(d16, hn::LoadU(d8, b + x)), d16,
                            reinterpret_cast<std::uint16_t*>(out + 2 * x));
    }
    for (; x < rowBytes_; ++x) {
      out[2 * x - (x & 1)] = a[x];
      out[2 * x - (x & 1) + 2] = b[x];
    }
  }

  PixelView src_;
  std::size_t rowBytes_;
  std::size_t stride_;
  std::size_t slots_;
  std::uint8_t* storage_;
  std::vector<int> built_;
};

// An axis whose windows start at an even source index, so that taps go in
// pairs (2j, 2j + 1): one int32 lane of a vector holds such a pair of int16
// values and a pairwise multiply-add weighs both at once.
struct PairedAxis {
  int pairs = 0;
  std::vector<int> firstPair;
  std::vector<std::int16_t> weights;  // pairs * 2 per output, zero-padded
};

PairedAxis pairUp(const Axis& axis, int outputs) {
  PairedAxis paired;
  for (int i = 0; i < outputs; ++i) {
    paired.pairs = std::max(paired.pairs, ((axis.first[static_cast<std::size_t>(i)] & 1) + axis.taps + 1) / 2);
  }
  const std::size_t perOutput = 2 * static_cast<std::size_t>(paired.pairs);
  paired.firstPair.resize(static_cast<std::size_t>(outputs));
  paired.weights.assign(perOutput * static_cast<std::size_t>(outputs), 0);
  for (int i = 0; i < outputs; ++i) {
    const auto ui = static_cast<std::size_t>(i);
    const int first = axis.first[ui];
    paired.firstPair[ui] = first / 2;
    std::copy_n(axis.weights.begin() + static_cast<std::ptrdiff_t>(ui * static_cast<std::size_t>(axis.taps)),
                axis.taps, paired.weights.begin() + static_cast<std::ptrdiff_t>(ui * perOutput) + (first & 1));
  }
  return paired;
}

// sum0 plus the pairwise products of a and b; see ReorderWidenMulAccumulate.
HWY_INLINE hn::Vec<D32> mulAddPairs(hn::Vec<D16> a, hn::Vec<D16> b, hn::Vec<D32> sum0, hn::Vec<D32>& sum1) {
#if ZRK_RESAMPLER_DPWSSD
  (void)sum1;
  return hn::Vec<D32>{_mm512_dpwssd_epi32(sum0.raw, a.raw, b.raw)};
#else
  return hn::ReorderWidenMulAccumulate(D32(), a, b, sum0, sum1);
#endif
}

// A tap pair's weights in every int32 lane, in memory order, which is the
// order the multiply-add pairs them with the data.
HWY_INLINE hn::Vec<D16> pairWeights(const std::int16_t* pair) {
  std::uint32_t word;
  std::memcpy(&word, pair, sizeof word);
  const hn::Repartition<std::uint32_t, D16> du32;
  return hn::BitCast(D16(), hn::Set(du32, word));
}

// Sums `pairs` pair rows with the given weights into Q6 values for `columns`
// source bytes (a multiple of the tile width; the rows are padded). Meanwhile
// it prefetches the same columns of the source rows the next output row will
// pair up: the image is far larger than the caches, and fetching it while
// the multipliers are busy hides most of the wait for memory.
void verticalRow(const std::uint8_t* const* rows, const std::int16_t* weights, int pairs, std::size_t columns,
                 std::int16_t* mid, const std::uint8_t* const* upcoming, std::size_t upcomingRows,
                 std::size_t rowBytes) {
  const D16 d16;
  const D32 d32;
  const hn::Repartition<std::uint8_t, D16> d8;
  const std::size_t n8 = hn::Lanes(d8);
  const auto lowBytes = hn::Set(d16, 0x00FF);
  const auto bias = hn::Set(d32, 1 << (kVerticalShift - 1));
  const std::size_t tile = kVerticalUnroll * n8 / 2;  // columns
  for (std::size_t x = 0; x < columns; x += tile) {
    if (x < rowBytes) {
      for (std::size_t r = 0; r < upcomingRows; ++r) {
        for (std::size_t line = 0; line < tile; line += 64) hwy::Prefetch(upcoming[r] + x + line);
      }
    }
    hn::Vec<D32> even0[kVerticalUnroll], even1[kVerticalUnroll], odd0[kVerticalUnroll], odd1[kVerticalUnroll];
    for (std::size_t u = 0; u < kVerticalUnroll; ++u) {
      even0[u] = even1[u] = odd0[u] = odd1[u] = hn::Zero(d32);
    }
    for (int p = 0; p < pairs; ++p) {
      const auto w = pairWeights(weights + 2 * p);
      const std::uint8_t* row = rows[p] + 2 * x;
      for (std::size_t u = 0; u < kVerticalUnroll; ++u) {
        const auto v = hn::BitCast(d16, hn::LoadU(d8, row + u * n8));
        even0[u] = mulAddPairs(hn::And(v, lowBytes), w, even0[u], even1[u]);
        odd0[u] = mulAddPairs(hn::BitCast(d16, hn::ShiftRight<8>(hn::BitCast(hn::RebindToUnsigned<D16>(), v))), w,
                              odd0[u], odd1[u]);
      }
    }
    for (std::size_t u = 0; u < kVerticalUnroll; ++u) {
      const auto even = hn::ShiftRight<kVerticalShift>(hn::Add(hn::RearrangeToOddPlusEven(even0[u], even1[u]), bias));
      const auto odd = hn::ShiftRight<kVerticalShift>(hn::Add(hn::RearrangeToOddPlusEven(odd0[u], odd1[u]), bias));
      // Q6 values fit in int16, so the halves join without saturation: even
      // columns low, odd columns high.
      const auto joined = hn::Or(hn::And(even, hn::Set(d32, 0xFFFF)), hn::ShiftLeft<16>(odd));
      hn::StoreU(hn::BitCast(d16, joined), d16, mid + x + u * n8 / 2);
    }
  }
}

// The horizontal pass works on as many rows at once as a vector has 128-bit
// blocks. It first lays the rows out as `pairs`: for each pair of source
// pixels (2j, 2j + 1), one vector with a block per row, each block holding
// (R0 R1 G0 G1 B0 B1 A0 A1). An output pixel is then a plain sum of whole
// vectors times broadcast weights, for all rows at once, with no reduction
// across lanes.
constexpr std::size_t rowsPerGroup() { return hn::MaxLanes(D16()) / 8; }

void layOutPairs(const std::int16_t* const* mid, int channels, std::size_t pairCount, std::int16_t* pairs) {
  const hn::Full128<std::uint8_t> d8;
  const hn::Full128<std::int16_t> d16;
  // Pixel 0 sits in int16 lanes [0, channels), pixel 1 right after it; 0x80
  // gives zero for the missing channels.
  alignas(16) static constexpr std::uint8_t kShuffles[5][16] = {
      {},
      {0, 1, 2, 3, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80},
      {},
      {0, 1, 6, 7, 2, 3, 8, 9, 4, 5, 10, 11, 0x80, 0x80, 0x80, 0x80},
      {0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15}};
  const auto shuffle = hn::Load(d8, kShuffles[channels]);
  const std::size_t rows = rowsPerGroup();
  const std::size_t step = 2 * static_cast<std::size_t>(channels);
  for (std::size_t j = 0; j < pairCount; ++j) {
    for (std::size_t r = 0; r < rows; ++r) {
      const auto pixels = hn::BitCast(d8, hn::LoadU(d16, mid[r] + j * step));
      hn::Store(hn::BitCast(d16, hn::TableLookupBytesOr0(pixels, shuffle)), d16, pairs + (j * rows + r) * 8);
    }
  }
}

// Writes 4 bytes per output pixel and row, interleaved by row, to `out`.
void horizontalGroup(const PairedAxis& axis, int outputs, const std::int16_t* pairs, std::uint8_t* out) {
  const D16 d16;
  const D32 d32;
  const hn::Rebind<std::uint8_t, D32> d8;
  const std::size_t n16 = hn::Lanes(d16);
  const std::size_t n32 = hn::Lanes(d32);
  const auto bias = hn::Set(d32, 1 << (kHorizontalShift - 1));
  const std::size_t perOutput = 2 * static_cast<std::size_t>(axis.pairs);
  for (int i = 0; i < outputs; ++i) {
    const auto ui = static_cast<std::size_t>(i);
    const std::int16_t* data = pairs + static_cast<std::size_t>(axis.firstPair[ui]) * n16;
    const std::int16_t* w = axis.weights.data() + ui * perOutput;
    // Two chains, so that one output's sum is not one long dependency.
    auto even0 = hn::Zero(d32), even1 = hn::Zero(d32), odd0 = hn::Zero(d32), odd1 = hn::Zero(d32);
    int p = 0;
    for (; p + 1 < axis.pairs; p += 2) {
      const std::int16_t* at = data + static_cast<std::size_t>(p) * n16;
      even0 = mulAddPairs(hn::Load(d16, at), pairWeights(w + 2 * p), even0, even1);
      odd0 = mulAddPairs(hn::Load(d16, at + n16), pairWeights(w + 2 * p + 2), odd0, odd1);
    }
    if (p < axis.pairs) {
      even0 = mulAddPairs(hn::Load(d16, data + static_cast<std::size_t>(p) * n16), pairWeights(w + 2 * p), even0,
                          even1);
    }
    auto v = hn::Add(hn::RearrangeToOddPlusEven(even0, even1), hn::RearrangeToOddPlusEven(odd0, odd1));
    v = hn::ShiftRight<kHorizontalShift>(hn::Add(v, bias));
    hn::StoreU(hn::DemoteTo(d8, v), d8, out + ui * n32);
  }
}

// Copies one row's pixels out of horizontalGroup's interleaved output.
template <int kChannels>
void unstage(const std::uint8_t* in, int width, std::uint8_t* out) {
  const std::size_t step = rowsPerGroup() * 4;
  for (int i = 0; i < width; ++i, in += step, out += kChannels) std::memcpy(out, in, kChannels);
}

// False when the scratch memory cannot be had.
bool resampleImpl(const Job& job) {
  const D16 d16;
  const std::size_t n16 = hn::Lanes(d16);
  const std::size_t tile = kVerticalUnroll * hn::Lanes(d16);
  const std::size_t groupRows = rowsPerGroup();
  const int channels = job.src.channels;
  const std::size_t rowBytes = static_cast<std::size_t>(job.src.width) * static_cast<std::size_t>(channels);
  const std::size_t columns = (rowBytes + tile - 1) / tile * tile;
  const std::size_t pairCount = (static_cast<std::size_t>(job.src.width) + 1) / 2;

  const PairedAxis vertical = pairUp(job.vertical, job.dst.height);
  const PairedAxis horizontal = pairUp(job.horizontal, job.dst.width);

  // Every scratch area in one block, each on a vector boundary: a 12 MP
  // source needs a few hundred kilobytes, which as separate fresh blocks
  // cost more in first-touch faults than in use.
  // Room for the odd pixel past the row's end that the last pair may name,
  // and for a 16-byte load from there.
  const std::size_t midSize = std::max(columns, rowBytes + static_cast<std::size_t>(channels) + 8);
  const std::size_t ringBytes = static_cast<std::size_t>(vertical.pairs) * 2 * columns;
  const std::size_t midBytes = midSize * groupRows * sizeof(std::int16_t);
  // A window padded to the longest one may reach one pair past the row.
  const std::size_t pairsBytes = (pairCount + 1) * n16 * sizeof(std::int16_t);
  const std::size_t stagedBytes = static_cast<std::size_t>(job.dst.width) * groupRows * 4;
  const auto aligned = [](std::size_t n) { return (n + kScratchAlignment - 1) / kScratchAlignment * kScratchAlignment; };
  PixelBuffer scratch =
      PixelBuffer::allocate(aligned(ringBytes) + aligned(midBytes) + aligned(pairsBytes) + aligned(stagedBytes));
  if (scratch.empty()) return false;
  std::uint8_t* next = scratch.data();
  const auto carve = [&](std::size_t n) { return std::exchange(next, next + aligned(n)); };

  PairRing ring(job.src, static_cast<std::size_t>(vertical.pairs), columns, carve(ringBytes));
  auto* midStorage = reinterpret_cast<std::int16_t*>(carve(midBytes));
  std::memset(midStorage, 0, midBytes);
  std::vector<std::int16_t*> mid(groupRows);
  for (std::size_t r = 0; r < groupRows; ++r) mid[r] = midStorage + r * midSize;
  auto* pairs = reinterpret_cast<std::int16_t*>(carve(pairsBytes));
  std::memset(pairs, 0, pairsBytes);
  std::uint8_t* staged = carve(stagedBytes);

  std::vector<const std::uint8_t*> rows(static_cast<std::size_t>(vertical.pairs));
  std::vector<const std::uint8_t*> upcoming;
  int prefetchedPairs = 0;  // pairs below this are cached or already built
  for (int y0 = 0; y0 < job.dst.height; y0 += static_cast<int>(groupRows)) {
    const int groupEnd = std::min(job.dst.height, y0 + static_cast<int>(groupRows));
    for (int y = y0; y < groupEnd; ++y) {
      const auto uy = static_cast<std::size_t>(y);
      const int firstPair = vertical.firstPair[uy];
      for (int p = 0; p < vertical.pairs; ++p) rows[static_cast<std::size_t>(p)] = ring.pair(firstPair + p);
      upcoming.clear();
      if (y + 1 < job.dst.height) {
        const int endPair = vertical.firstPair[uy + 1] + vertical.pairs;
        for (int j = std::max(prefetchedPairs, firstPair + vertical.pairs); j < endPair; ++j) {
          for (int r = 2 * j; r < std::min(2 * j + 2, job.src.height); ++r) upcoming.push_back(sourceRow(job.src, r));
        }
        prefetchedPairs = std::max(prefetchedPairs, endPair);
      }
      verticalRow(rows.data(), vertical.weights.data() + uy * 2 * static_cast<std::size_t>(vertical.pairs),
                  vertical.pairs, columns, mid[static_cast<std::size_t>(y - y0)], upcoming.data(), upcoming.size(),
                  rowBytes);
    }
    layOutPairs(mid.data(), channels, pairCount, pairs);
    horizontalGroup(horizontal, job.dst.width, pairs, staged);
    for (int y = y0; y < groupEnd; ++y) {
      const std::uint8_t* in = staged + static_cast<std::size_t>(y - y0) * 4;
      std::uint8_t* out = destinationRow(job.dst, y);
      switch (channels) {
        case 1: unstage<1>(in, job.dst.width, out); break;
        case 3: unstage<3>(in, job.dst.width, out); break;
        default: unstage<4>(in, job.dst.width, out); break;
      }
    }
  }
  return true;
}

#endif  // HWY_TARGET == HWY_SCALAR

}  // namespace zrk::detail::HWY_NAMESPACE
#undef ZRK_RESAMPLER_DPWSSD
HWY_AFTER_NAMESPACE();

#if HWY_ONCE

namespace zrk::detail {

HWY_EXPORT(resampleImpl);

namespace {

// Rows of up to 2^24 bytes and up to 2^24 of them keep every index and size
// the passes compute in range.
bool validView(const std::uint8_t* data, int width, int height, std::ptrdiff_t stride, int channels) {
  return data != nullptr && width >= 1 && height >= 1 && (channels == 1 || channels == 3 || channels == 4) &&
         width <= (1 << 24) / channels && height <= (1 << 24) &&
         stride >= static_cast<std::ptrdiff_t>(width) * channels;
}

std::uintptr_t endOf(const std::uint8_t* data, int width, int height, std::ptrdiff_t stride, int channels) {
  return reinterpret_cast<std::uintptr_t>(data) + static_cast<std::uintptr_t>(stride) * (height - 1) +
         static_cast<std::uintptr_t>(width) * channels;
}

}  // namespace

bool resample(const PixelView& src, const MutablePixelView& dst) {
  if (!validView(src.data, src.width, src.height, src.stride, src.channels) ||
      !validView(dst.data, dst.width, dst.height, dst.stride, dst.channels) || src.channels != dst.channels) {
    return false;
  }
  // Rows are written while later source rows are still to be read.
  const auto srcBegin = reinterpret_cast<std::uintptr_t>(src.data);
  const auto dstBegin = reinterpret_cast<std::uintptr_t>(dst.data);
  if (srcBegin < endOf(dst.data, dst.width, dst.height, dst.stride, dst.channels) &&
      dstBegin < endOf(src.data, src.width, src.height, src.stride, src.channels)) {
    return false;
  }

  if (src.width == dst.width && src.height == dst.height) {
    for (int y = 0; y < src.height; ++y) {
      std::memcpy(dst.data + dst.stride * y, src.data + src.stride * y,
                  static_cast<std::size_t>(src.width) * static_cast<std::size_t>(src.channels));
    }
    return true;
  }

  resampler::Job job{src, dst, resampler::makeAxis(src.width, dst.width),
                     resampler::makeAxis(src.height, dst.height)};
  return HWY_DYNAMIC_DISPATCH(resampleImpl)(job);
}

std::vector<ResamplerTarget> resamplerTargets() {
  std::vector<ResamplerTarget> targets;
  for (const std::int64_t target : hwy::SupportedAndGeneratedTargets()) {
    targets.push_back({target, hwy::TargetName(target)});
  }
  return targets;
}

void restrictResamplerTo(std::int64_t target) { hwy::SetSupportedTargetsForTest(target); }

}  // namespace zrk::detail

#endif  // HWY_ONCE
