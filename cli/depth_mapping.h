// Sample values between 16-bit files and the host's 16-bit range.
//
// A 16-bit file holds 0..65535; the host holds 0..32768, where 32768 is full
// scale (Photoshop's own range). Both directions round with integer
// arithmetic, so that every host value survives the trip out to a file and
// back unchanged. The range has 32769 steps, so the other way round cannot be
// exact for all 65536 file values: a file value may move by one step.
#pragma once

#include <stdint.h>

namespace mendaris_cli {

constexpr uint32_t kFileFull16 = 65535;
constexpr uint32_t kHostFull16 = 32768;

// Half a step is added before the division (32767 and 16384): the products
// reach 2^31 and more, past int32, so the arithmetic is unsigned.
inline uint16_t fileToHost16(uint16_t v) {
  return uint16_t((uint32_t(v) * kHostFull16 + kFileFull16 / 2) / kFileFull16);
}

inline uint16_t hostToFile16(uint16_t h) {
  // Values past full scale (a host should never hand them out) are held at it.
  uint32_t clamped = h > kHostFull16 ? kHostFull16 : h;
  return uint16_t((clamped * kFileFull16 + kHostFull16 / 2) / kHostFull16);
}

}  // namespace mendaris_cli
