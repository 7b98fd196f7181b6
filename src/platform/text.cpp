#include "platform/text.h"

#include <cstdint>
#include <cstdio>

namespace vigilo {
namespace {

constexpr std::string_view kReplacement = "\uFFFD";
constexpr std::string_view kEllipsis = "\u2026";

// The length of the well-formed character at the start of `s` and its code
// point, or 0 when `s` does not start with one (Unicode's table 3-7).
std::size_t charAt(std::string_view s, char32_t* cp) {
  const auto b = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned char c = b(0);
  if (c < 0x80) {
    *cp = c;
    return 1;
  }
  std::size_t n = 0;
  unsigned char lo = 0x80, hi = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    n = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    n = 3;
    if (c == 0xE0) lo = 0xA0;  // overlong
    if (c == 0xED) hi = 0x9F;  // surrogates
  } else if (c >= 0xF0 && c <= 0xF4) {
    n = 4;
    if (c == 0xF0) lo = 0x90;  // overlong
    if (c == 0xF4) hi = 0x8F;  // past U+10FFFF
  } else {
    return 0;
  }
  if (s.size() < n || b(1) < lo || b(1) > hi) return 0;
  char32_t v = c & (0xFF >> (n + 1));
  for (std::size_t i = 1; i < n; ++i) {
    if ((b(i) & 0xC0) != 0x80) return 0;
    v = (v << 6) | (b(i) & 0x3F);
  }
  *cp = v;
  return n;
}

bool hidesOnScreen(char32_t cp) {
  return cp < 0x20 || (cp >= 0x7F && cp <= 0x9F) || (cp >= 0x202A && cp <= 0x202E) ||
         (cp >= 0x2066 && cp <= 0x2069) || cp == 0x200E || cp == 0x200F || cp == 0x2028 || cp == 0x2029;
}

}  // namespace

std::string validUtf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  char32_t cp = 0;
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t n = charAt(text.substr(i), &cp);
    if (n == 0) {
      out += kReplacement;
      ++i;
    } else {
      out.append(text.substr(i, n));
      i += n;
    }
  }
  return out;
}

std::string cutUtf8(std::string_view text, std::size_t maxBytes) {
  std::string valid = validUtf8(text);
  if (valid.size() <= maxBytes) return valid;
  const bool mark = maxBytes >= kEllipsis.size();
  std::size_t keep = mark ? maxBytes - kEllipsis.size() : maxBytes;
  // The text is valid now, so backing up over continuation bytes lands on
  // the start of a character.
  while (keep > 0 && (static_cast<unsigned char>(valid[keep]) & 0xC0) == 0x80) --keep;
  valid.resize(keep);
  if (mark) valid += kEllipsis;
  return valid;
}

std::string terminalSafe(std::string_view text) {
  const std::string valid = validUtf8(text);
  std::string out;
  out.reserve(valid.size());
  char32_t cp = 0;
  for (std::size_t i = 0; i < valid.size();) {
    const std::size_t n = charAt(std::string_view(valid).substr(i), &cp);
    if (hidesOnScreen(cp)) {
      char buf[12];
      std::snprintf(buf, sizeof buf, cp < 0x100 ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(cp));
      out += buf;
    } else {
      out.append(valid, i, n);
    }
    i += n;
  }
  return out;
}

bool jsonNestingWithin(std::string_view text, int limit) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '{' || c == '[') {
      if (++depth > limit) return false;
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return true;
}

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const auto end = text.find('\n');
    lines.push_back(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return lines;
}

std::string_view trimmed(std::string_view s) {
  const auto first = s.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return s.substr(first, s.find_last_not_of(kBlanks) - first + 1);
}

std::string shortHash(std::string_view text) {
  std::uint64_t h = 1469598103934665603ull;
  for (unsigned char c : text) {
    h ^= c;
    h *= 1099511628211ull;
  }
  char out[17];
  std::snprintf(out, sizeof out, "%016llx", static_cast<unsigned long long>(h));
  return out;
}

}  // namespace vigilo
