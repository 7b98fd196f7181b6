#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vigilo::test {

// An 8-bit RGB or RGBA PNG, decoded: enough to check that a picture of the
// panel has the right size and isn't one flat colour.
struct Picture {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  int channels = 0;
  std::vector<std::uint8_t> pixels;  // rows top to bottom, unfiltered
};
std::optional<Picture> readPng(const std::string& path);

// How many different pixel values the picture holds (stops counting at 64).
int distinctColours(const Picture& p);

}  // namespace vigilo::test
