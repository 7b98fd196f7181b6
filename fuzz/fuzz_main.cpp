// The entry libFuzzer calls: each fuzz program links exactly one target.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fuzz_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const vigilo::fuzz::Target target = [] {
    if (vigilo::fuzz::targets().size() != 1) std::abort();
    return vigilo::fuzz::targets().begin()->second;
  }();
  target(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
