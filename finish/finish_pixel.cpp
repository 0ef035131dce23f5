#include "finish/finish_pixel.h"

#include "finish/blend_modes.h"

#include <string.h>

#include "host/blocks.h"
#include "store/portable_math.h"
#include "store/resample.h"

namespace {

// Display and partial stages of the engine; a whole-image run is stage 0.
constexpr int32_t kStageDisplay = 1;
constexpr int32_t kStagePartial = 2;

// One line of the spill, in double from float operands, rounded to float: the
// rounding at each line is part of the result.
float addExcess(float giver, float taker) { return float((double(giver) - 1.0) + double(taker)); }

// After the two channels p and q (p first in red, green, blue order) were
// raised, a channel still above 1 hands its excess on to the other. It only
// adds: the giver is not lowered.
void spillCascade(float* p, float* q) {
  if (*p > 1.0f) *q = addExcess(*p, *q);
  if (*q > 1.0f) *p = addExcess(*q, *p);
}

// The spill itself, for the integer depths.
inline void spillInto(PixelValue* value) {
  float excess = 0.0f;
  int32_t mask = 0;
  if (value->r > 1.0f) {
    excess = addExcess(value->r, 0.0f);
    mask = 1;
  }
  if (value->g > 1.0f) {
    excess = addExcess(value->g, excess);
    mask += 2;
  }
  if (value->b > 1.0f) {
    excess = addExcess(value->b, excess);
    mask += 4;
  }
  // Nothing above 1, or all three: nobody has room, and nothing moves.
  if (mask == 0 || mask == 7) return;
  excess = excess * kSpillGain;
  float share = float(double(excess) * kSpillScale);
  float half = float(double(share) * kSpillHalf);
  switch (mask) {
    case 1:
      value->g = value->g + half;
      value->b = value->b + half;
      spillCascade(&value->g, &value->b);
      break;
    case 2:
      value->r = value->r + half;
      value->b = value->b + half;
      spillCascade(&value->r, &value->b);
      break;
    case 4:
      value->r = value->r + half;
      value->g = value->g + half;
      spillCascade(&value->r, &value->g);
      break;
    case 3:
      value->b = value->b + share;
      break;
    case 5:
      value->g = value->g + share;
      break;
    case 6:
      value->r = value->r + share;
      break;
    default:  // nothing above 1, or all three: nobody has room
      break;
  }
}

}  // namespace

void spillExcess(PixelValue* value, const HostTileView& view) {
  if (view.floatMath) return;
  spillInto(value);
}

void mixAlphaAware(PixelValue* out, const PixelValue* a, const PixelValue* b, float t) {
  float weightA = float((1.0 - double(t)) * double(a->a));
  float weightB = t * b->a;
  float weight = weightA + weightB;
  if (weight <= 0.0f) {
    *out = PixelValue{0.0f, 0.0f, 0.0f, 0.0f};
    return;
  }
  float k = weightB / weight;
  PixelValue mixed;
  mixed.r = (b->r - a->r) * k + a->r;
  mixed.g = (b->g - a->g) * k + a->g;
  mixed.b = (b->b - a->b) * k + a->b;
  mixed.a = (b->a - a->a) * t + a->a;
  *out = mixed;
}

void compositeOver(const PixelValue* src, PixelValue* dst) {
  if (src->a <= 0.0f) return;
  float k = src->a / ((dst->a + src->a) - dst->a * src->a);
  dst->r = (src->r - dst->r) * k + dst->r;
  dst->g = (src->g - dst->g) * k + dst->g;
  dst->b = (src->b - dst->b) * k + dst->b;
  dst->a = (1.0f - dst->a) * src->a + dst->a;
}

void finishPixel(int32_t x, int32_t y, PixelValue* sample, const TileCursor& tile, PreviewBuffer* previewBuffer,
                 int32_t rowMode) {
  const HostTileView& view = tile.view;
  int32_t blendMode = finishBlendMode();
  int32_t stage = finishRunStage();

  // Alpha gain: almost-opaque results become opaque. Float documents keep
  // their alpha as it came.
  if (!view.floatMath) sample->a = sample->a * kAlphaGain;
  if (sample->a < 0.0f) sample->a = 0.0f;
  if (sample->a > 1.0f) sample->a = 1.0f;
  if (sample->r < 0.0f) sample->r = 0.0f;
  if (sample->g < 0.0f) sample->g = 0.0f;
  if (sample->b < 0.0f) sample->b = 0.0f;

  spillExcess(sample, view);

  // The gray test goes by planes, not by the image mode: a tile of gray and
  // transparency has two planes.
  if (view.isGrayPlanes) {
    float gray = (sample->g * kGrayGreen + sample->r * kGrayRed) + sample->b * kGrayBlue;
    sample->r = gray;
    sample->g = gray;
    sample->b = gray;
  }

  float coverage = selectionCoverage(x, y, tile, rowMode);
  bool wholeCoverage = !(double(coverage) < kCoverageWhole);

  // An opaque copy over a fully selected pixel does not need the tile under it.
  PixelValue dst;
  if (blendMode == kBlendCopy && !(double(sample->a) < 1.0) && wholeCoverage) {
    dst = PixelValue{0.0f, 0.0f, 0.0f, 1.0f};
  } else if (stage >= kStagePartial) {
    dst = PixelValue{0.0f, 0.0f, 0.0f, 0.0f};
  } else {
    dst = readHostPixel(x, y, tile, rowMode);
  }

  PixelValue out;
  if (view.floatMath) {
    out = *sample;
    if (out.r > kFloatColourMax) out.r = kFloatColourMax;
    if (out.g > kFloatColourMax) out.g = kFloatColourMax;
    if (out.b > kFloatColourMax) out.b = kFloatColourMax;
  } else {
    blendPixel(sample, &dst, &out, blendMode);
    // A layer without transparency cannot take a partial alpha: the result
    // is laid over the input pixel instead.
    if (!view.hasTransparency && stage == 0 && out.a < 1.0f) {
      PixelValue over = out;
      out = dst;
      compositeOver(&over, &out);
    }
    if (out.r > 1.0f) out.r = 1.0f;
    if (out.g > 1.0f) out.g = 1.0f;
    if (out.b > 1.0f) out.b = 1.0f;
  }

  // A display stage shows the result over a checkerboard of 8-pixel squares.
  if (stage == kStageDisplay) {
    float c = ((x ^ y) & 8) == 0 ? 1.0f : 0.8f;
    PixelValue board = {c, c, c, 1.0f};
    compositeOver(&out, &board);
    out = board;
    if (!wholeCoverage) dst = PixelValue{c, c, c, 1.0f};
  }

  // Selection mix, alpha included: at coverage 0 the input pixel comes back
  // exactly as it was.
  if (!wholeCoverage) {
    out.r = (out.r - dst.r) * coverage + dst.r;
    out.g = (out.g - dst.g) * coverage + dst.g;
    out.b = (out.b - dst.b) * coverage + dst.b;
    out.a = (out.a - dst.a) * coverage + dst.a;
  }

  writeHostPixel(x, y, out, tile, previewBuffer, rowMode);
}

namespace {

// The sample types of the three depths and their conversions, as the pixel
// reader and writer of the host's tiles make them: one multiplication, and a
// truncation for the integer depths. kShift turns a row step in bytes into
// one in samples.
struct Depth8 {
  typedef uint8_t Sample;
  static constexpr int kShift = 0;
  static float read(Sample s, float scale) { return float(s) * scale; }
  static Sample write(float c, float scale) { return uint8_t(truncFloat(c * scale)); }
  static Sample writeAlpha(float a, float scale) { return uint8_t(truncFloat(a * scale)); }
};

struct Depth16 {
  typedef uint16_t Sample;
  static constexpr int kShift = 1;
  static float read(Sample s, float scale) { return float(s) * scale; }
  static Sample write(float c, float scale) { return uint16_t(truncFloat(c * scale)); }
  static Sample writeAlpha(float a, float scale) { return uint16_t(truncFloat(a * scale)); }
};

struct DepthFloat {
  typedef float Sample;
  static constexpr int kShift = 2;
  static float read(Sample s, float scale) { return s * scale; }
  static Sample write(float c, float scale) { return c * scale; }
  static Sample writeAlpha(float a, float scale) { return scale * a; }
};

// What the view decides for one row of the tile, taken once for the row: the
// selection (whole when the host masks by itself or there is no mask; none on
// a row or column that the host's mask does not reach), the input row as far
// as the host delivered it, the output row, planes and scales.
template <class D>
struct RowSetup {
  typedef typename D::Sample Sample;
  const uint8_t* colours;
  ptrdiff_t strideBytes;
  int32_t left;
  int32_t unitLeft;
  bool maskWhole;
  const uint8_t* maskRow;
  int32_t maskWidth;
  const Sample* inRow;
  int32_t inWidth;
  ptrdiff_t inStride;
  Sample* outRow;
  ptrdiff_t outStride;
  bool colourPlanes;
  bool gray;
  bool floatMath;
  bool transparency;
  int32_t alphaPlane;  // of both tiles, found by the input's figure
  float inScale;
  float inAlphaScale;
  float outScale;
  float outAlphaScale;

  RowSetup(int32_t y, int32_t rowLeft, const uint8_t* rowColours, ptrdiff_t stride, const TileCursor& tile) {
    const HostTileView& view = tile.view;
    const int32_t dy = y - tile.unitRect.top;
    colours = rowColours;
    strideBytes = stride;
    left = rowLeft;
    unitLeft = tile.unitRect.left;
    maskWhole = view.hostSig == kSelfMaskingHostSig || !view.haveMask || view.maskData == nullptr;
    const bool maskRowThere = !maskWhole && !(dy >= view.maskRect[2] - view.maskRect[0]);
    maskRow = maskRowThere
                  ? static_cast<const uint8_t*>(view.maskData) + ptrdiff_t(dy) * ptrdiff_t(view.maskRowBytes)
                  : nullptr;
    maskWidth = view.maskRect[3] - view.maskRect[1];
    const bool inRowThere = view.inData != nullptr && !(dy >= view.inRect[2] - view.inRect[0]);
    inRow = inRowThere
                ? static_cast<const Sample*>(view.inData) + ptrdiff_t(dy) * ptrdiff_t(view.inRowBytes >> D::kShift)
                : nullptr;
    inWidth = view.inRect[3] - view.inRect[1];
    inStride = ptrdiff_t(view.inHiPlane) - view.inLoPlane + 1;
    outRow = static_cast<Sample*>(view.outData) + ptrdiff_t(dy) * ptrdiff_t(view.outRowBytes >> D::kShift);
    outStride = view.outPixelStride;
    colourPlanes = view.planes >= 3;
    gray = view.isGrayPlanes;
    floatMath = view.floatMath;
    transparency = view.hasTransparency;
    alphaPlane = view.inLayerPlanes;
    inScale = view.invColourScale;
    inAlphaScale = view.invAlphaScale;
    outScale = view.colourScale;
    outAlphaScale = float(view.alphaScaleInt);
  }

  PixelValue sampleOf(int32_t x) const {
    if (colours == nullptr) return PixelValue{0.0f, 0.0f, 0.0f, 0.0f};
    const uint8_t* c = colours + ptrdiff_t(x - left) * strideBytes;
    return PixelValue{loadFloat(c), loadFloat(c + 4), loadFloat(c + 8), loadFloat(c + 12)};
  }

  float coverageAt(int32_t dx) const {
    if (maskWhole) return 1.0f;
    if (maskRow == nullptr || dx >= maskWidth) return 0.0f;
    return float(maskRow[dx]) * kMaskByteScale;
  }
};

// finishPixel's steps for pixel x of a row that lies wholly inside the unit
// and the host's outRect, at blend mode 1 and the whole-image stage, with an
// output buffer. The pixel reads its input before it writes its output, as
// finishPixel does.
template <class D>
inline void finishOne(const RowSetup<D>& r, int32_t x) {
  typedef typename D::Sample Sample;
  const int32_t dx = x - r.unitLeft;
  PixelValue sample = r.sampleOf(x);

  if (!r.floatMath) sample.a = sample.a * kAlphaGain;
  if (sample.a < 0.0f) sample.a = 0.0f;
  if (sample.a > 1.0f) sample.a = 1.0f;
  if (sample.r < 0.0f) sample.r = 0.0f;
  if (sample.g < 0.0f) sample.g = 0.0f;
  if (sample.b < 0.0f) sample.b = 0.0f;
  if (!r.floatMath) spillInto(&sample);
  if (r.gray) {
    float l = (sample.g * kGrayGreen + sample.r * kGrayRed) + sample.b * kGrayBlue;
    sample.r = l;
    sample.g = l;
    sample.b = l;
  }

  const float coverage = r.coverageAt(dx);
  const bool wholeCoverage = !(double(coverage) < kCoverageWhole);

  PixelValue dst = {0.0f, 0.0f, 0.0f, 0.0f};
  if (!(double(sample.a) < 1.0) && wholeCoverage) {
    dst = PixelValue{0.0f, 0.0f, 0.0f, 1.0f};
  } else if (r.inRow != nullptr && !(dx >= r.inWidth)) {
    const Sample* p = r.inRow + ptrdiff_t(dx) * r.inStride;
    dst.r = D::read(p[0], r.inScale);
    dst.g = r.colourPlanes ? D::read(p[1], r.inScale) : dst.r;
    dst.b = r.colourPlanes ? D::read(p[2], r.inScale) : dst.r;
    dst.a = r.transparency ? D::read(p[r.alphaPlane], r.inAlphaScale) : 1.0f;
  }

  // Blend mode 1 is a plain copy of the sample.
  PixelValue out = sample;
  if (r.floatMath) {
    if (out.r > kFloatColourMax) out.r = kFloatColourMax;
    if (out.g > kFloatColourMax) out.g = kFloatColourMax;
    if (out.b > kFloatColourMax) out.b = kFloatColourMax;
  } else {
    if (!r.transparency && out.a < 1.0f) {
      PixelValue over = out;
      out = dst;
      compositeOver(&over, &out);
    }
    if (out.r > 1.0f) out.r = 1.0f;
    if (out.g > 1.0f) out.g = 1.0f;
    if (out.b > 1.0f) out.b = 1.0f;
  }

  if (!wholeCoverage) {
    out.r = (out.r - dst.r) * coverage + dst.r;
    out.g = (out.g - dst.g) * coverage + dst.g;
    out.b = (out.b - dst.b) * coverage + dst.b;
    out.a = (out.a - dst.a) * coverage + dst.a;
  }

  Sample* p = r.outRow + ptrdiff_t(dx) * r.outStride;
  if (r.colourPlanes) {
    p[0] = D::write(out.r, r.outScale);
    p[1] = D::write(out.g, r.outScale);
    p[2] = D::write(out.b, r.outScale);
  } else {
    p[0] = D::write(out.g, r.outScale);  // a gray tile takes the green channel
  }
  if (r.transparency) p[r.alphaPlane] = D::writeAlpha(out.a, r.outAlphaScale);
}

#if MENDARIS_SSE2_TRUNC

// The four samples of an interleaved pixel (red, green, blue, alpha) as
// floats, each times its read factor, and back: the same single-precision
// products and truncations as the per-channel code, one channel per lane.
inline __m128 readQuad(const uint8_t* p, __m128 scales) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i bytes = _mm_cvtsi32_si128(int(loadWord(p)));
  return _mm_mul_ps(_mm_cvtepi32_ps(_mm_unpacklo_epi16(_mm_unpacklo_epi8(bytes, zero), zero)), scales);
}
inline __m128 readQuad(const uint16_t* p, __m128 scales) {
  const __m128i words = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
  return _mm_mul_ps(_mm_cvtepi32_ps(_mm_unpacklo_epi16(words, _mm_setzero_si128())), scales);
}
inline __m128 readQuad(const float* p, __m128 scales) { return _mm_mul_ps(_mm_loadu_ps(p), scales); }

// Truncation toward zero with INT32_MIN for NaN and anything out of range, as
// truncFloat; then the low 8 or 16 bits of each.
inline void writeQuad(uint8_t* p, __m128 v, __m128 scales) {
  __m128i i = _mm_and_si128(_mm_cvttps_epi32(_mm_mul_ps(v, scales)), _mm_set1_epi32(0xff));
  i = _mm_packs_epi32(i, i);
  i = _mm_packus_epi16(i, i);
  storeWord(p, uint32_t(_mm_cvtsi128_si32(i)));
}
inline void writeQuad(uint16_t* p, __m128 v, __m128 scales) {
  __m128i i = _mm_cvttps_epi32(_mm_mul_ps(v, scales));
  i = _mm_shufflelo_epi16(i, _MM_SHUFFLE(3, 1, 2, 0));
  i = _mm_shufflehi_epi16(i, _MM_SHUFFLE(3, 1, 2, 0));
  i = _mm_shuffle_epi32(i, _MM_SHUFFLE(3, 1, 2, 0));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(p), i);
}
inline void writeQuad(float* p, __m128 v, __m128 scales) { _mm_storeu_ps(p, _mm_mul_ps(v, scales)); }

// Cells ahead of the one being written whose colours are asked for.
constexpr ptrdiff_t kColourFetchAhead = 48;

// The row of a colour tile with transparency whose pixels are red, green,
// blue, alpha side by side in both tiles: finishOne with the four channels in
// the lanes of one register where every channel takes the same operation.
// The lanes compute the very operations of finishOne, in its order. A pixel
// with a colour above 1.0 at the integer depths needs the spill, which works
// across channels: it takes finishOne itself.
template <class D>
void finishQuadRow(const RowSetup<D>& r, int32_t right) {
  const float inf = bitsToFloat(0x7f800000u);
  const __m128 zero = _mm_setzero_ps();
  const __m128 ones = _mm_set1_ps(1.0f);
  const __m128 alphaOnly = _mm_castsi128_ps(_mm_set_epi32(-1, 0, 0, 0));
  const __m128 gain = _mm_set_ps(kAlphaGain, 1.0f, 1.0f, 1.0f);
  // Alpha no higher than 1; colours below 1 (integer depths) or 65535 (float).
  const __m128 alphaCeiling = _mm_set_ps(1.0f, inf, inf, inf);
  const float colourMax = r.floatMath ? kFloatColourMax : 1.0f;
  const __m128 colourCeiling = _mm_set_ps(inf, colourMax, colourMax, colourMax);
  const __m128 inScales = _mm_set_ps(r.inAlphaScale, r.inScale, r.inScale, r.inScale);
  const __m128 outScales = _mm_set_ps(r.outAlphaScale, r.outScale, r.outScale, r.outScale);
  const __m128 opaqueDst = _mm_set_ps(1.0f, 0.0f, 0.0f, 0.0f);

  for (int32_t x = r.left; x < right; ++x) {
    const int32_t dx = x - r.unitLeft;
    // The cells were written on the worker's processor: their lines are
    // asked for a stretch ahead.
    if (r.colours != nullptr) {
      _mm_prefetch(reinterpret_cast<const char*>(r.colours + ptrdiff_t(x - r.left + kColourFetchAhead) * r.strideBytes),
                   _MM_HINT_T0);
    }
    __m128 s = r.colours != nullptr ? _mm_loadu_ps(reinterpret_cast<const float*>(
                                          r.colours + ptrdiff_t(x - r.left) * r.strideBytes))
                                    : zero;
    if (!r.floatMath && (_mm_movemask_ps(_mm_cmpgt_ps(s, ones)) & 7) != 0) {
      finishOne(r, x);
      continue;
    }
    // Alpha gain (alpha lane alone), then alpha to 0..1 and colours to 0 and up.
    if (!r.floatMath) s = _mm_or_ps(_mm_andnot_ps(alphaOnly, s), _mm_and_ps(alphaOnly, _mm_mul_ps(s, gain)));
    s = _mm_max_ps(zero, s);
    s = _mm_min_ps(alphaCeiling, s);

    const float coverage = r.coverageAt(dx);
    const bool wholeCoverage = !(double(coverage) < kCoverageWhole);
    const float alpha = _mm_cvtss_f32(_mm_shuffle_ps(s, s, _MM_SHUFFLE(3, 3, 3, 3)));

    __m128 dst = zero;
    if (!(double(alpha) < 1.0) && wholeCoverage) {
      dst = opaqueDst;
    } else if (r.inRow != nullptr && !(dx >= r.inWidth)) {
      dst = readQuad(r.inRow + ptrdiff_t(dx) * r.inStride, inScales);
    }

    // Blend mode 1 copies the sample; then the colour ceiling of the depth.
    __m128 out = _mm_min_ps(colourCeiling, s);
    if (!wholeCoverage) {
      out = _mm_add_ps(_mm_mul_ps(_mm_sub_ps(out, dst), _mm_set1_ps(coverage)), dst);
    }
    writeQuad(r.outRow + ptrdiff_t(dx) * r.outStride, out, outScales);
  }
}

#endif

// One row of the tile: the four-lane loop where the tile's layout allows it,
// else finishOne pixel by pixel.
template <class D>
void finishRowAt(int32_t y, int32_t left, int32_t right, const uint8_t* colours, ptrdiff_t strideBytes,
                 const TileCursor& tile) {
  const RowSetup<D> r(y, left, colours, strideBytes, tile);
#if MENDARIS_SSE2_TRUNC
  if (r.colourPlanes && !r.gray && r.transparency && r.alphaPlane == 3 && r.outStride == 4 && r.inStride == 4) {
    finishQuadRow(r, right);
    return;
  }
#endif
  for (int32_t x = left; x < right; ++x) finishOne(r, x);
}

}  // namespace

void finishRow(int32_t y, int32_t left, int32_t right, const void* colours, ptrdiff_t strideBytes,
               const TileCursor& tile, PreviewBuffer* previewBuffer) {
  const uint8_t* base = static_cast<const uint8_t*>(colours);
  const HostTileView& view = tile.view;
  const VRect& unit = tile.unitRect;
  if (left < right && view.outData != nullptr && finishBlendMode() == kBlendCopy &&
      finishRunStage() == kRunStageWhole) {
    // Every pixel of the row inside the unit and inside the host's outRect:
    // the tests of writeHostPixel, made for the row's last pixel, which bounds
    // the others.
    const int32_t dy = y - unit.top;
    const int32_t firstDx = left - unit.left;
    const int32_t lastDx = right - 1 - unit.left;
    const bool rowInside = uint32_t(dy) < uint32_t(unit.bottom - unit.top) && !(dy >= view.outRect[2] - view.outRect[0]) &&
                           firstDx >= 0 && uint32_t(lastDx) < uint32_t(unit.right - unit.left) &&
                           !(lastDx >= view.outRect[3] - view.outRect[1]);
    if (rowInside) {
      if (view.is8Bit) {
        finishRowAt<Depth8>(y, left, right, base, strideBytes, tile);
        return;
      }
      if (view.is16Bit) {
        finishRowAt<Depth16>(y, left, right, base, strideBytes, tile);
        return;
      }
      if (view.is32Bit) {
        finishRowAt<DepthFloat>(y, left, right, base, strideBytes, tile);
        return;
      }
    }
  }
  for (int32_t x = left; x < right; ++x) {
    PixelValue sample = {0.0f, 0.0f, 0.0f, 0.0f};
    if (base != nullptr) {
      float c[4];
      memcpy(c, base + ptrdiff_t(x - left) * strideBytes, sizeof c);
      sample = PixelValue{c[0], c[1], c[2], c[3]};
    }
    finishPixel(x, y, &sample, tile, previewBuffer, kRowModeRows);
  }
}
