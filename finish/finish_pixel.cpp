#include "finish/finish_pixel.h"

#include "finish/blend_modes.h"

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

}  // namespace

void spillExcess(PixelValue* value, const HostTileView& view) {
  if (view.floatMath) return;
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
