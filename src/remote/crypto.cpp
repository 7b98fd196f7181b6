#include "remote/crypto.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <memory>

namespace vigilo {
namespace {

constexpr std::size_t kNonceBytes = 12;
constexpr std::size_t kTagBytes = 16;

struct CipherCtxFree {
  void operator()(EVP_CIPHER_CTX* c) const { EVP_CIPHER_CTX_free(c); }
};
using CipherCtx = std::unique_ptr<EVP_CIPHER_CTX, CipherCtxFree>;

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

int sextet(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '-' || c == '+') return 62;
  if (c == '_' || c == '/') return 63;
  return -1;
}

const unsigned char* bytesOf(std::string_view s) { return reinterpret_cast<const unsigned char*>(s.data()); }

}  // namespace

std::string base64Url(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() * 4 + 2) / 3);
  std::uint32_t acc = 0;
  int bits = 0;
  for (unsigned char b : bytes) {
    acc = (acc << 8) | b;
    bits += 8;
    while (bits >= 6) {
      bits -= 6;
      out.push_back(kAlphabet[(acc >> bits) & 0x3f]);
    }
  }
  if (bits > 0) out.push_back(kAlphabet[(acc << (6 - bits)) & 0x3f]);
  return out;
}

std::optional<std::string> decodeBase64(std::string_view text) {
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  // One leftover character can never be a whole byte.
  if (text.size() % 4 == 1) return std::nullopt;
  std::string out;
  out.reserve(text.size() * 3 / 4);
  std::uint32_t acc = 0;
  int bits = 0;
  for (char c : text) {
    const int v = sextet(c);
    if (v < 0) return std::nullopt;
    acc = (acc << 6) | static_cast<std::uint32_t>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((acc >> bits) & 0xff));
    }
  }
  return out;
}

std::string encodeKey(const PhoneKey& key) {
  return base64Url(std::string_view(reinterpret_cast<const char*>(key.data()), key.size()));
}

std::optional<PhoneKey> decodeKey(std::string_view text) {
  auto bytes = decodeBase64(text);
  if (!bytes || bytes->size() != 32) return std::nullopt;
  PhoneKey key{};
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<std::uint8_t>((*bytes)[i]);
  return key;
}

std::optional<std::string> secureRandom(std::size_t count) {
  std::string out(count, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(out.data()), static_cast<int>(count)) != 1) return std::nullopt;
  return out;
}

std::optional<PhoneKey> newPhoneKey() {
  auto bytes = secureRandom(32);
  if (!bytes) return std::nullopt;
  return decodeKey(base64Url(*bytes));
}


std::string topicFor(const PhoneKey& key, std::string_view label) {
  std::string input(reinterpret_cast<const char*>(key.data()), key.size());
  input.append(label);
  return "vigilo-" + sha256Hex(input).substr(0, 24);
}

std::optional<std::string> sealWithNonce(std::string_view plaintext, std::string_view topic, const PhoneKey& key,
                                         std::string_view nonce) {
  if (nonce.size() != kNonceBytes) return std::nullopt;
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx) return std::nullopt;
  std::string box(nonce);
  box.resize(kNonceBytes + plaintext.size() + kTagBytes);
  auto* out = reinterpret_cast<unsigned char*>(box.data()) + kNonceBytes;
  int len = 0;
  if (EVP_EncryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, kNonceBytes, nullptr) != 1 ||
      EVP_EncryptInit_ex(ctx.get(), nullptr, nullptr, key.data(), bytesOf(nonce)) != 1 ||
      EVP_EncryptUpdate(ctx.get(), nullptr, &len, bytesOf(topic), static_cast<int>(topic.size())) != 1 ||
      EVP_EncryptUpdate(ctx.get(), out, &len, bytesOf(plaintext), static_cast<int>(plaintext.size())) != 1) {
    return std::nullopt;
  }
  int tail = 0;
  if (EVP_EncryptFinal_ex(ctx.get(), out + len, &tail) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kTagBytes, out + plaintext.size()) != 1) {
    return std::nullopt;
  }
  return base64Url(box);
}

std::optional<std::string> seal(std::string_view plaintext, std::string_view topic, const PhoneKey& key) {
  auto nonce = secureRandom(kNonceBytes);
  if (!nonce) return std::nullopt;
  return sealWithNonce(plaintext, topic, key, *nonce);
}

std::optional<std::string> open(std::string_view message, std::string_view topic, const PhoneKey& key) {
  auto box = decodeBase64(message);
  if (!box || box->size() < kNonceBytes + kTagBytes) return std::nullopt;
  const std::size_t textBytes = box->size() - kNonceBytes - kTagBytes;
  const auto* raw = bytesOf(*box);
  CipherCtx ctx(EVP_CIPHER_CTX_new());
  if (!ctx) return std::nullopt;
  std::string plain(textBytes, '\0');
  auto* out = reinterpret_cast<unsigned char*>(plain.data());
  int len = 0;
  // The tag is copied out: OpenSSL wants a writable pointer for it.
  unsigned char tag[kTagBytes];
  std::copy(raw + kNonceBytes + textBytes, raw + box->size(), tag);
  if (EVP_DecryptInit_ex(ctx.get(), EVP_aes_256_gcm(), nullptr, nullptr, nullptr) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_IVLEN, kNonceBytes, nullptr) != 1 ||
      EVP_DecryptInit_ex(ctx.get(), nullptr, nullptr, key.data(), raw) != 1 ||
      EVP_DecryptUpdate(ctx.get(), nullptr, &len, bytesOf(topic), static_cast<int>(topic.size())) != 1 ||
      EVP_DecryptUpdate(ctx.get(), out, &len, raw + kNonceBytes, static_cast<int>(textBytes)) != 1 ||
      EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kTagBytes, tag) != 1) {
    return std::nullopt;
  }
  int tail = 0;
  if (EVP_DecryptFinal_ex(ctx.get(), out + len, &tail) != 1) return std::nullopt;
  return plain;
}

}  // namespace vigilo
