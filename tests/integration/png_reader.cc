// Decoding of 8-bit RGB and RGBA PNG files without interlace: chunks, zlib, row filters.
#include "png_reader.h"

#include <zlib.h>

#include <cstdlib>
#include <cstring>

namespace marquel::test {
namespace {

// Pictures larger than this are not what a test renders.
constexpr uint32_t kMaxSide = 16384;

uint32_t Big32(const std::string& s, size_t at) {
  return static_cast<uint32_t>(static_cast<uint8_t>(s[at])) << 24 |
         static_cast<uint32_t>(static_cast<uint8_t>(s[at + 1])) << 16 |
         static_cast<uint32_t>(static_cast<uint8_t>(s[at + 2])) << 8 |
         static_cast<uint32_t>(static_cast<uint8_t>(s[at + 3]));
}

uint8_t Paeth(int a, int b, int c) {
  const int p = a + b - c;
  const int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
  if (pa <= pb && pa <= pc) return static_cast<uint8_t>(a);
  return static_cast<uint8_t>(pb <= pc ? b : c);
}

// Undoes the filter of each row in place; false for an unknown filter type.
bool Unfilter(std::vector<uint8_t>& data, size_t height, size_t stride, size_t bpp) {
  for (size_t y = 0; y < height; ++y) {
    uint8_t* row = &data[y * (stride + 1)];
    const uint8_t filter = row[0];
    uint8_t* cur = row + 1;
    const uint8_t* prev = y > 0 ? &data[(y - 1) * (stride + 1) + 1] : nullptr;
    for (size_t i = 0; i < stride; ++i) {
      const int a = i >= bpp ? cur[i - bpp] : 0;
      const int b = prev ? prev[i] : 0;
      const int c = prev && i >= bpp ? prev[i - bpp] : 0;
      switch (filter) {
        case 0:
          break;
        case 1:
          cur[i] = static_cast<uint8_t>(cur[i] + a);
          break;
        case 2:
          cur[i] = static_cast<uint8_t>(cur[i] + b);
          break;
        case 3:
          cur[i] = static_cast<uint8_t>(cur[i] + (a + b) / 2);
          break;
        case 4:
          cur[i] = static_cast<uint8_t>(cur[i] + Paeth(a, b, c));
          break;
        default:
          return false;
      }
    }
  }
  return true;
}

}  // namespace

bool DecodePng(const std::string& bytes, Picture* out, std::string* error) {
  static const char kSignature[] = "\x89PNG\r\n\x1a\n";
  if (bytes.size() < 8 || bytes.compare(0, 8, kSignature, 8) != 0) {
    *error = "not a PNG file";
    return false;
  }
  uint32_t width = 0, height = 0;
  int channels = 0;
  std::string compressed;
  for (size_t at = 8; at + 12 <= bytes.size();) {
    const uint32_t length = Big32(bytes, at);
    const std::string type = bytes.substr(at + 4, 4);
    if (length > bytes.size() - at - 12) {
      *error = "chunk " + type + " runs past the end";
      return false;
    }
    const size_t body = at + 8;
    if (type == "IHDR") {
      if (length < 13) break;
      width = Big32(bytes, body);
      height = Big32(bytes, body + 4);
      const int depth = static_cast<uint8_t>(bytes[body + 8]);
      const int colour = static_cast<uint8_t>(bytes[body + 9]);
      const int interlace = static_cast<uint8_t>(bytes[body + 12]);
      channels = colour == 2 ? 3 : colour == 6 ? 4 : 0;
      if (depth != 8 || channels == 0 || interlace != 0 || width == 0 || height == 0 ||
          width > kMaxSide || height > kMaxSide) {
        *error = "not an 8-bit RGB or RGBA picture without interlace";
        return false;
      }
    } else if (type == "IDAT") {
      compressed.append(bytes, body, length);
    } else if (type == "IEND") {
      break;
    }
    at = body + length + 4;
  }
  if (channels == 0) {
    *error = "no IHDR chunk";
    return false;
  }
  const size_t stride = static_cast<size_t>(width) * channels;
  std::vector<uint8_t> data(height * (stride + 1));
  uLongf size = data.size();
  if (uncompress(data.data(), &size, reinterpret_cast<const Bytef*>(compressed.data()),
                 compressed.size()) != Z_OK ||
      size != data.size()) {
    *error = "the image data does not inflate to " + std::to_string(data.size()) + " bytes";
    return false;
  }
  if (!Unfilter(data, height, stride, static_cast<size_t>(channels))) {
    *error = "unknown row filter";
    return false;
  }
  out->width = static_cast<int>(width);
  out->height = static_cast<int>(height);
  out->rgba.assign(static_cast<size_t>(width) * height * 4, 255);
  for (size_t y = 0; y < height; ++y)
    for (size_t x = 0; x < width; ++x)
      std::memcpy(&out->rgba[(y * width + x) * 4], &data[y * (stride + 1) + 1 + x * channels],
                  static_cast<size_t>(channels));
  return true;
}

}  // namespace marquel::test
