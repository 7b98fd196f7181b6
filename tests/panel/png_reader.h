#pragma once

#include <png.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vigilo::test {

// A PNG decoded to 8-bit RGBA: enough to check that a picture of the panel
// has the right size and isn't one flat colour.
struct Picture {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  int channels = 4;
  std::vector<std::uint8_t> pixels;  // rows top to bottom
};

inline std::optional<Picture> readPng(const std::string& path) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_file(&image, path.c_str()) == 0) return std::nullopt;
  image.format = PNG_FORMAT_RGBA;
  Picture pic{image.width, image.height, 4, std::vector<std::uint8_t>(PNG_IMAGE_SIZE(image))};
  if (png_image_finish_read(&image, nullptr, pic.pixels.data(), 0, nullptr) == 0) return std::nullopt;
  return pic;
}

// How many different pixel values the picture holds (stops counting at 64).
inline int distinctColours(const Picture& p) {
  std::set<std::uint32_t> seen;
  for (std::size_t i = 0; i + p.channels <= p.pixels.size() && seen.size() < 64; i += p.channels) {
    seen.insert(p.pixels[i] << 24 | p.pixels[i + 1] << 16 | p.pixels[i + 2] << 8 | p.pixels[i + 3]);
  }
  return static_cast<int>(seen.size());
}

}  // namespace vigilo::test
