#include "store/resample_table.h"

#include "store/portable_math.h"

namespace {

// The filter's own pi: a truncated value, and the weights depend on it.
const double kLanczosPi = 3.141592653;
const int kBoxSteps = 20;
const double kBoxStep = 21.0;  // steps of 1/21 pixel: the box spans 19/21 of a pixel

}  // namespace

double lanczos2(double x) {
  if (x <= -2.0 || x >= 2.0) return 0.0;
  if (x == 0.0) return 1.0;
  double a = kLanczosPi * x;
  double b = a / 2.0;
  return (portableSin(a) / a) * (portableSin(b) / b);
}

void fillResampleKernelTable(ResampleKernelTable* table) {
  for (int phase = 0; phase < kKernelPhases; ++phase) {
    float t = static_cast<float>(phase * 0.0078125 - 2.0);
    float s[kKernelTaps] = {0.0f, 0.0f, 0.0f, 0.0f, 0.0f};
    for (int k = 0; k < kBoxSteps; ++k) {
      float x = static_cast<float>(static_cast<double>(t) - k / kBoxStep);
      for (int j = 0; j < kKernelTaps; ++j) {
        s[j] = static_cast<float>(static_cast<double>(s[j]) + lanczos2(static_cast<double>(x) + j));
      }
    }

    // The normaliser sums tap 1 first: s1 + s0 + s2 + s3 + s4, each step in single precision.
    float sum = s[1] + s[0];
    sum = sum + s[2];
    sum = sum + s[3];
    sum = sum + s[4];
    float n = static_cast<float>(1.0 / static_cast<double>(sum));
    float w[kKernelTaps];
    for (int j = 0; j < 4; ++j) w[j] = n * s[j];
    // Tap 4 takes what is left, so that the float taps sum to 1 as closely as floats allow.
    float partial = w[1] + w[0];
    partial = partial + w[2];
    partial = partial + w[3];
    w[4] = 1.0f - partial;

    for (int j = 0; j < kKernelTaps; ++j) {
      table->weights[j][phase] = w[j];
      table->weightsFloat[j][phase] = w[j];
    }

    // Integer taps truncate, and tap 4 takes the remainder: a phase's taps sum
    // to the scale exactly, so a flat area stays exactly flat in integer arithmetic.
    int32_t q8[kKernelTaps];
    int32_t q16[kKernelTaps];
    for (int j = 0; j < 4; ++j) {
      q8[j] = truncToInt32(w[j] * 2048.0f);
      q16[j] = truncToInt32(w[j] * 32768.0f);
    }
    q8[4] = 2048 - q8[0] - q8[1] - q8[2] - q8[3];
    q16[4] = 32768 - q16[0] - q16[1] - q16[2] - q16[3];
    for (int j = 0; j < kKernelTaps; ++j) {
      table->weights2048[j][phase] = q8[j];
      table->weights32768[j][phase] = q16[j];
    }
  }
}
