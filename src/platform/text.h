#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace vigilo {

// Text from outside (a phone, a relay, a file, a caller) may hold any bytes.
// These helpers are the one way Vigilo cuts, repairs, prints and writes it.

// `text` with every byte that does not begin a well-formed UTF-8 character
// (stray continuation bytes, overlong forms, surrogates, code points past
// U+10FFFF, truncated sequences) replaced by U+FFFD.
std::string validUtf8(std::string_view text);

// `text` made valid (as `validUtf8`) and cut to at most `maxBytes` bytes
// without splitting a character, with "…" at the end when anything was cut
// (the "…" counted; left out when `maxBytes` has no room for it).
std::string cutUtf8(std::string_view text, std::size_t maxBytes);

// `text` made valid and safe to print on a terminal: control characters
// (C0, DEL, C1) and the characters that reorder text on screen (bidi
// embeddings, overrides and isolates) are written as "\x1b" or "\u202e", so
// a name can neither move the cursor nor pose as other text. A backslash
// stays as it is.
std::string terminalSafe(std::string_view text);

// 16 hex digits of `text`'s FNV-1a hash: a short, stable name for a path,
// cheap enough for every hook run (no secret: anyone can compute it).
std::string shortHash(std::string_view text);

// Spaces, tabs and line ends: what `trimmed` cuts and words are split at.
inline constexpr std::string_view kBlanks = " \t\r\n";

// `s` without blanks at either end.
std::string_view trimmed(std::string_view s);

// The lines of `text` without their "\n"; a last line without one counts,
// an empty text has none.
std::vector<std::string_view> linesOf(std::string_view text);

// Whether the brackets of JSON `text` nest at most `limit` deep (those in
// strings not counted). The JSON library recurses when it prints or compares
// a value, so text from outside is checked before it is parsed.
bool jsonNestingWithin(std::string_view text, int limit);

// JSON text of `value` that never throws: a string holding bad UTF-8 (which
// nlohmann's default dump refuses with an exception) has each bad byte
// written as U+FFFD. `indent` as in `dump`: -1 is compact.
template <class Json>
std::string dumpJson(const Json& value, int indent = -1) {
  return value.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace vigilo
