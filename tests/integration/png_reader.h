// A small PNG reader for the pictures a browser writes: 8-bit RGB or RGBA, not interlaced.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace marquel::test {

struct Picture {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgba;  // width * height * 4 bytes, rows top to bottom

  struct Pixel {
    uint8_t r, g, b, a;
  };
  Pixel At(int x, int y) const {
    const uint8_t* p = &rgba[(static_cast<size_t>(y) * width + x) * 4];
    return {p[0], p[1], p[2], p[3]};
  }
};

// Decodes PNG bytes; false with *error saying why (another form, a damaged file).
bool DecodePng(const std::string& bytes, Picture* out, std::string* error);

}  // namespace marquel::test
