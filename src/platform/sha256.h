#pragma once

#include <string>
#include <string_view>

namespace vigilo {

// Lower-case hexadecimal SHA-256 of `bytes` (OpenSSL's), as `shasum -a 256`
// and `sha256sum` print it.
std::string sha256Hex(std::string_view bytes);

}  // namespace vigilo
