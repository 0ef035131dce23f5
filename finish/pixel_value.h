// A computed colour on its way to the host: four floats, red, green, blue,
// alpha. Colours are straight, not multiplied by alpha; 1.0 is full scale at 8
// and 16 bits, and colours may exceed it at 32 bits. Alpha runs 0.0 to 1.0.
#pragma once

struct PixelValue {
  float r;
  float g;
  float b;
  float a;
};
