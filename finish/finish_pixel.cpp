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

// One row that lies wholly inside the unit and the host's outRect, at blend
// mode 1 and the whole-image stage, with an output buffer: finishPixel's
// steps for each pixel in turn, with what the view decides for the whole tile
// (mask or none, the input row and how far it reaches, planes, scales) taken
// once. Each pixel reads its input before it writes its output, as
// finishPixel does.
template <class D>
void finishRowAt(int32_t y, int32_t left, int32_t right, const uint8_t* colours, ptrdiff_t strideBytes,
                 const TileCursor& tile) {
  typedef typename D::Sample Sample;
  const HostTileView& view = tile.view;
  const int32_t dy = y - tile.unitRect.top;

  // The selection: whole when the host masks by itself or there is no mask;
  // nothing on a row or column the host's mask does not reach.
  const bool maskWhole = view.hostSig == kSelfMaskingHostSig || !view.haveMask || view.maskData == nullptr;
  const bool maskRowThere = !maskWhole && !(dy >= view.maskRect[2] - view.maskRect[0]);
  const uint8_t* maskRow =
      maskRowThere ? static_cast<const uint8_t*>(view.maskData) + ptrdiff_t(dy) * ptrdiff_t(view.maskRowBytes)
                   : nullptr;
  const int32_t maskWidth = view.maskRect[3] - view.maskRect[1];

  // The input row, as far as the host delivered it.
  const bool inRowThere = view.inData != nullptr && !(dy >= view.inRect[2] - view.inRect[0]);
  const Sample* inRow =
      inRowThere ? static_cast<const Sample*>(view.inData) + ptrdiff_t(dy) * ptrdiff_t(view.inRowBytes >> D::kShift)
                 : nullptr;
  const int32_t inWidth = view.inRect[3] - view.inRect[1];
  const ptrdiff_t inStride = ptrdiff_t(view.inHiPlane) - view.inLoPlane + 1;

  Sample* outRow = static_cast<Sample*>(view.outData) + ptrdiff_t(dy) * ptrdiff_t(view.outRowBytes >> D::kShift);
  const ptrdiff_t outStride = view.outPixelStride;

  const bool colourPlanes = view.planes >= 3;
  const bool gray = view.isGrayPlanes;
  const bool floatMath = view.floatMath;
  const bool transparency = view.hasTransparency;
  // The alpha plane of both tiles is found by the input's figure.
  const int32_t alphaPlane = view.inLayerPlanes;
  const float inScale = view.invColourScale;
  const float inAlphaScale = view.invAlphaScale;
  const float outScale = view.colourScale;
  const float outAlphaScale = float(view.alphaScaleInt);

  for (int32_t x = left; x < right; ++x) {
    const int32_t dx = x - tile.unitRect.left;
    PixelValue sample = {0.0f, 0.0f, 0.0f, 0.0f};
    if (colours != nullptr) {
      float c[4];
      memcpy(c, colours + ptrdiff_t(x - left) * strideBytes, sizeof c);
      sample = PixelValue{c[0], c[1], c[2], c[3]};
    }

    if (!floatMath) sample.a = sample.a * kAlphaGain;
    if (sample.a < 0.0f) sample.a = 0.0f;
    if (sample.a > 1.0f) sample.a = 1.0f;
    if (sample.r < 0.0f) sample.r = 0.0f;
    if (sample.g < 0.0f) sample.g = 0.0f;
    if (sample.b < 0.0f) sample.b = 0.0f;
    if (!floatMath) spillInto(&sample);
    if (gray) {
      float l = (sample.g * kGrayGreen + sample.r * kGrayRed) + sample.b * kGrayBlue;
      sample.r = l;
      sample.g = l;
      sample.b = l;
    }

    float coverage;
    if (maskWhole) {
      coverage = 1.0f;
    } else if (maskRow == nullptr || dx >= maskWidth) {
      coverage = 0.0f;
    } else {
      coverage = float(maskRow[dx]) * kMaskByteScale;
    }
    const bool wholeCoverage = !(double(coverage) < kCoverageWhole);

    PixelValue dst = {0.0f, 0.0f, 0.0f, 0.0f};
    if (!(double(sample.a) < 1.0) && wholeCoverage) {
      dst = PixelValue{0.0f, 0.0f, 0.0f, 1.0f};
    } else if (inRow != nullptr && !(dx >= inWidth)) {
      const Sample* p = inRow + ptrdiff_t(dx) * inStride;
      dst.r = D::read(p[0], inScale);
      dst.g = colourPlanes ? D::read(p[1], inScale) : dst.r;
      dst.b = colourPlanes ? D::read(p[2], inScale) : dst.r;
      dst.a = transparency ? D::read(p[alphaPlane], inAlphaScale) : 1.0f;
    }

    // Blend mode 1 is a plain copy of the sample.
    PixelValue out = sample;
    if (floatMath) {
      if (out.r > kFloatColourMax) out.r = kFloatColourMax;
      if (out.g > kFloatColourMax) out.g = kFloatColourMax;
      if (out.b > kFloatColourMax) out.b = kFloatColourMax;
    } else {
      if (!transparency && out.a < 1.0f) {
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

    Sample* p = outRow + ptrdiff_t(dx) * outStride;
    if (colourPlanes) {
      p[0] = D::write(out.r, outScale);
      p[1] = D::write(out.g, outScale);
      p[2] = D::write(out.b, outScale);
    } else {
      p[0] = D::write(out.g, outScale);  // a gray tile takes the green channel
    }
    if (transparency) p[alphaPlane] = D::writeAlpha(out.a, outAlphaScale);
  }
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
