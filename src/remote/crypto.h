#pragma once

#include "platform/sha256.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vigilo {

// The phone channel's cryptography: a 32-byte key shared with the phone,
// two topic names derived from it, and AES-256-GCM boxes whose associated
// data is the topic, so a box moved to another topic no longer opens.

using PhoneKey = std::array<std::uint8_t, 32>;

inline constexpr std::string_view kCommandLabel = "vigilo/cmd/v1";
inline constexpr std::string_view kReplyLabel = "vigilo/reply/v1";

// Base64 with "-" and "_" for "+" and "/", no "=" padding.
std::string base64Url(std::string_view bytes);
// Accepts base64 and base64url, padded or not; nothing for anything else.
std::optional<std::string> decodeBase64(std::string_view text);

// The key in its base64url form, and back (nothing unless it is 32 bytes).
std::string encodeKey(const PhoneKey& key);
std::optional<PhoneKey> decodeKey(std::string_view text);

// `count` bytes from the system's secure random source; nothing when it
// fails (never a weak fallback).
std::optional<std::string> secureRandom(std::size_t count);
std::optional<PhoneKey> newPhoneKey();


// "vigilo-" and the first 24 hex digits of SHA-256(key || label).
std::string topicFor(const PhoneKey& key, std::string_view label);

// Seals `plaintext` with a fresh random nonce: nonce, ciphertext and tag,
// in base64url. Nothing when the random source or the cipher fails.
std::optional<std::string> seal(std::string_view plaintext, std::string_view topic, const PhoneKey& key);
// The same with a given 12-byte nonce, for known-answer tests only: a nonce
// must never be used twice with one key.
std::optional<std::string> sealWithNonce(std::string_view plaintext, std::string_view topic, const PhoneKey& key,
                                         std::string_view nonce);
// The plaintext, or nothing when the message is not base64, shorter than a
// nonce and a tag, or fails authentication.
std::optional<std::string> open(std::string_view message, std::string_view topic, const PhoneKey& key);

}  // namespace vigilo
