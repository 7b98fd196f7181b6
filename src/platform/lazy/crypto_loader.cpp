// libcrypto on first use: only the phone channel seals and opens, and only
// "Approve everything" and the phone topics take checksums.

#include <cstring>

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include "platform/lazy/lazy_library.h"

namespace {
const char* const kCrypto = "libcrypto.so.3";
}

extern "C" {

VIGILO_LAZY(kCrypto, EVP_CIPHER_CTX*, EVP_CIPHER_CTX_new, (void), (), nullptr)
VIGILO_LAZY_VOID(kCrypto, EVP_CIPHER_CTX_free, (EVP_CIPHER_CTX * c), (c))
VIGILO_LAZY(kCrypto, int, EVP_CIPHER_CTX_ctrl, (EVP_CIPHER_CTX * ctx, int type, int arg, void* ptr),
            (ctx, type, arg, ptr), 0)
VIGILO_LAZY(kCrypto, const EVP_CIPHER*, EVP_aes_256_gcm, (void), (), nullptr)
VIGILO_LAZY(kCrypto, int, EVP_EncryptInit_ex,
            (EVP_CIPHER_CTX * ctx, const EVP_CIPHER* cipher, ENGINE* impl, const unsigned char* key,
             const unsigned char* iv),
            (ctx, cipher, impl, key, iv), 0)
VIGILO_LAZY(kCrypto, int, EVP_EncryptUpdate,
            (EVP_CIPHER_CTX * ctx, unsigned char* out, int* outl, const unsigned char* in, int inl),
            (ctx, out, outl, in, inl), 0)
VIGILO_LAZY(kCrypto, int, EVP_EncryptFinal_ex, (EVP_CIPHER_CTX * ctx, unsigned char* out, int* outl),
            (ctx, out, outl), 0)
VIGILO_LAZY(kCrypto, int, EVP_DecryptInit_ex,
            (EVP_CIPHER_CTX * ctx, const EVP_CIPHER* cipher, ENGINE* impl, const unsigned char* key,
             const unsigned char* iv),
            (ctx, cipher, impl, key, iv), 0)
VIGILO_LAZY(kCrypto, int, EVP_DecryptUpdate,
            (EVP_CIPHER_CTX * ctx, unsigned char* out, int* outl, const unsigned char* in, int inl),
            (ctx, out, outl, in, inl), 0)
VIGILO_LAZY(kCrypto, int, EVP_DecryptFinal_ex, (EVP_CIPHER_CTX * ctx, unsigned char* outm, int* outl),
            (ctx, outm, outl), 0)
VIGILO_LAZY(kCrypto, int, RAND_bytes, (unsigned char* buf, int num), (buf, num), 0)

// Without libcrypto the digest reads as all zeros, which matches no file, so
// nothing is ever put back on its strength.
unsigned char* SHA256(const unsigned char* d, size_t n, unsigned char* md) {
  using Fn = unsigned char* (*)(const unsigned char*, size_t, unsigned char*);
  static const Fn fn = vigilo::lazy::symbol<&kCrypto, Fn>("SHA256");
  if (fn != nullptr) return fn(d, n, md);
  std::memset(md, 0, SHA256_DIGEST_LENGTH);
  return nullptr;
}

}  // extern "C"
