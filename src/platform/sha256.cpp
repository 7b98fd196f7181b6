#include "platform/sha256.h"

#include <openssl/sha.h>

namespace vigilo {

std::string sha256Hex(std::string_view bytes) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * SHA256_DIGEST_LENGTH);
  for (unsigned char b : digest) {
    out.push_back(kHex[b >> 4]);
    out.push_back(kHex[b & 0xf]);
  }
  return out;
}

}  // namespace vigilo
