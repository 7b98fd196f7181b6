#include "panel/png_reader.h"

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>

#include <zlib.h>

namespace vigilo::test {
namespace {

std::uint32_t be32(const std::uint8_t* p) {
  return (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) | (std::uint32_t(p[2]) << 8) | p[3];
}

int paeth(int a, int b, int c) {
  const int p = a + b - c;
  const int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
  return pa <= pb && pa <= pc ? a : pb <= pc ? b : c;
}

}  // namespace

std::optional<Picture> readPng(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<std::uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  static const std::uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  if (data.size() < 8 || std::memcmp(data.data(), kSignature, 8) != 0) return std::nullopt;
  Picture pic;
  std::vector<std::uint8_t> compressed;
  for (std::size_t at = 8; at + 12 <= data.size();) {
    const std::uint32_t length = be32(&data[at]);
    if (at + 12 + length > data.size()) return std::nullopt;
    const std::string type(reinterpret_cast<const char*>(&data[at + 4]), 4);
    const std::uint8_t* body = &data[at + 8];
    if (type == "IHDR") {
      pic.width = be32(body);
      pic.height = be32(body + 4);
      if (body[8] != 8 || body[12] != 0) return std::nullopt;  // 8 bits, not interlaced
      pic.channels = body[9] == 6 ? 4 : body[9] == 2 ? 3 : 0;
      if (pic.channels == 0) return std::nullopt;
    } else if (type == "IDAT") {
      compressed.insert(compressed.end(), body, body + length);
    }
    at += 12 + length;
  }
  const std::size_t stride = std::size_t(pic.width) * pic.channels;
  std::vector<std::uint8_t> raw((stride + 1) * pic.height);
  uLongf size = raw.size();
  if (pic.width == 0 || uncompress(raw.data(), &size, compressed.data(), compressed.size()) != Z_OK ||
      size != raw.size()) {
    return std::nullopt;
  }
  pic.pixels.assign(stride * pic.height, 0);
  for (std::uint32_t y = 0; y < pic.height; ++y) {
    const std::uint8_t filter = raw[y * (stride + 1)];
    const std::uint8_t* src = &raw[y * (stride + 1) + 1];
    std::uint8_t* row = &pic.pixels[y * stride];
    const std::uint8_t* up = y > 0 ? &pic.pixels[(y - 1) * stride] : nullptr;
    for (std::size_t x = 0; x < stride; ++x) {
      const int a = x >= std::size_t(pic.channels) ? row[x - pic.channels] : 0;
      const int b = up ? up[x] : 0;
      const int c = up && x >= std::size_t(pic.channels) ? up[x - pic.channels] : 0;
      int v = src[x];
      switch (filter) {
        case 0: break;
        case 1: v += a; break;
        case 2: v += b; break;
        case 3: v += (a + b) / 2; break;
        case 4: v += paeth(a, b, c); break;
        default: return std::nullopt;
      }
      row[x] = static_cast<std::uint8_t>(v);
    }
  }
  return pic;
}

int distinctColours(const Picture& p) {
  std::set<std::uint32_t> seen;
  for (std::size_t i = 0; i + p.channels <= p.pixels.size() && seen.size() < 64; i += p.channels) {
    std::uint32_t v = 0;
    for (int c = 0; c < p.channels; ++c) v = (v << 8) | p.pixels[i + c];
    seen.insert(v);
  }
  return static_cast<int>(seen.size());
}

}  // namespace vigilo::test
