#include "integrations/toml_top.h"

#include <cstdint>

namespace vigilo {
namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

bool isBareKeyChar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
}

std::size_t skipBlanks(std::string_view s, std::size_t i) {
  while (i < s.size() && isBlank(s[i])) ++i;
  return i;
}

void appendUtf8(std::string& out, std::uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// A basic string's content from just after its opening quote: the text with
// escapes applied, and the offset just after the closing quote. Nothing when
// it isn't closed on this line or holds a bad escape.
std::optional<std::pair<std::string, std::size_t>> basicString(std::string_view s, std::size_t i) {
  std::string out;
  while (i < s.size()) {
    const char c = s[i];
    if (c == '"') return std::make_pair(out, i + 1);
    if (c != '\\') {
      out += c;
      ++i;
      continue;
    }
    if (++i >= s.size()) return std::nullopt;
    const char e = s[i++];
    switch (e) {
      case '"': out += '"'; break;
      case '\\': out += '\\'; break;
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case 'r': out += '\r'; break;
      case 'b': out += '\b'; break;
      case 'f': out += '\f'; break;
      case 'u':
      case 'U': {
        const std::size_t digits = e == 'u' ? 4 : 8;
        if (i + digits > s.size()) return std::nullopt;
        std::uint32_t cp = 0;
        for (std::size_t k = 0; k < digits; ++k) {
          const char h = s[i + k];
          cp <<= 4;
          if (h >= '0' && h <= '9') cp |= static_cast<std::uint32_t>(h - '0');
          else if (h >= 'a' && h <= 'f') cp |= static_cast<std::uint32_t>(h - 'a' + 10);
          else if (h >= 'A' && h <= 'F') cp |= static_cast<std::uint32_t>(h - 'A' + 10);
          else return std::nullopt;
        }
        if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return std::nullopt;
        appendUtf8(out, cp);
        i += digits;
        break;
      }
      default:
        return std::nullopt;
    }
  }
  return std::nullopt;
}

// A dotted key starting at `i` (blanks allowed around the dots): its parts
// unquoted and joined by ".", and the offset after it. Nothing when there is
// no key there.
std::optional<std::size_t> parseKey(std::string_view s, std::size_t i, std::string* name) {
  std::string joined;
  bool first = true;
  i = skipBlanks(s, i);
  for (;;) {
    std::string part;
    if (i >= s.size()) return std::nullopt;
    if (s[i] == '"') {
      auto str = basicString(s, i + 1);
      if (!str) return std::nullopt;
      part = str->first;
      i = str->second;
    } else if (s[i] == '\'') {
      const std::size_t close = s.find('\'', i + 1);
      if (close == std::string_view::npos) return std::nullopt;
      part = std::string(s.substr(i + 1, close - i - 1));
      i = close + 1;
    } else {
      const std::size_t start = i;
      while (i < s.size() && isBareKeyChar(s[i])) ++i;
      if (i == start) return std::nullopt;
      part = std::string(s.substr(start, i - start));
    }
    if (!first) joined += '.';
    first = false;
    joined += part;
    const std::size_t after = skipBlanks(s, i);
    if (after < s.size() && s[after] == '.') {
      i = skipBlanks(s, after + 1);
      continue;
    }
    if (name) *name = joined;
    return after;
  }
}

std::string_view withoutLineBreak(std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

const TOMLTop::Statement* findTop(const TOMLTop::Scan& scan, const std::string& key) {
  for (const auto& s : scan.statements) {
    if (!s.header && s.table.empty() && s.name == key) return &s;
  }
  return nullptr;
}

}  // namespace

std::string TOMLTop::lineBreak(std::string_view text) {
  const std::size_t nl = text.find('\n');
  return nl != std::string_view::npos && nl > 0 && text[nl - 1] == '\r' ? "\r\n" : "\n";
}

std::string TOMLTop::stripStrings(std::string_view line, std::string& open) {
  std::string out;
  std::size_t i = 0;
  while (i < line.size()) {
    if (!open.empty()) {
      // Inside a multi-line string: look for its closing delimiter.
      const bool basic = open == "\"\"\"";
      while (i < line.size()) {
        if (basic && line[i] == '\\') {
          i += 2;
          continue;
        }
        if (line.compare(i, 3, open) == 0) {
          i += 3;
          // Up to two more quotes belong to the content.
          while (i < line.size() && line[i] == open[0]) ++i;
          out += open;
          open.clear();
          break;
        }
        ++i;
      }
      continue;
    }
    const char c = line[i];
    if (c == '#') break;
    if (c == '"' || c == '\'') {
      const std::string triple(3, c);
      if (line.compare(i, 3, triple) == 0) {
        out += triple;
        open = triple;
        i += 3;
        continue;
      }
      out += c;
      ++i;
      while (i < line.size() && line[i] != c) {
        if (c == '"' && line[i] == '\\') ++i;
        ++i;
      }
      if (i < line.size()) {
        out += c;
        ++i;
      }
      continue;
    }
    out += c;
    ++i;
  }
  return out;
}

int TOMLTop::bracketDelta(std::string_view stripped) {
  int d = 0;
  for (char c : stripped) {
    if (c == '[' || c == '{') ++d;
    if (c == ']' || c == '}') --d;
  }
  return d;
}

std::optional<std::size_t> TOMLTop::keyEnd(std::string_view line, std::string* name) {
  std::string key;
  auto end = parseKey(line, 0, &key);
  if (!end || *end >= line.size() || line[*end] != '=') return std::nullopt;
  if (name) *name = key;
  return end;
}

TOMLTop::Scan TOMLTop::scan(std::string_view text) {
  Scan result;
  std::string table;
  std::string open;
  int depth = 0;
  bool continuing = false;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t nl = text.find('\n', pos);
    const std::size_t end = nl == std::string_view::npos ? text.size() : nl + 1;
    const std::string_view content = withoutLineBreak(text.substr(pos, end - pos));
    if (continuing) {
      depth += bracketDelta(stripStrings(content, open));
      result.statements.back().end = end;
      if (open.empty() && depth <= 0) {
        depth = 0;
        continuing = false;
      }
      pos = end;
      continue;
    }
    std::size_t first = skipBlanks(content, 0);
    // A byte-order mark before the first statement.
    if (pos == 0 && content.substr(0, 3) == "\xEF\xBB\xBF") first = skipBlanks(content, 3);
    if (first >= content.size() || content[first] == '#') {
      pos = end;
      continue;
    }
    Statement s;
    s.begin = pos;
    s.end = end;
    if (content[first] == '[') {
      const bool array = content.compare(first, 2, "[[") == 0;
      std::string name;
      auto after = parseKey(content, first + (array ? 2 : 1), &name);
      if (after && *after < content.size() && content[*after] == ']') {
        s.header = true;
        s.name = name;
        table = name;
        result.statements.push_back(s);
      }
      pos = end;
      continue;
    }
    std::string name;
    auto eq = keyEnd(content.substr(first), &name);
    if (!eq) {
      pos = end;
      continue;
    }
    s.name = name;
    s.table = table;
    depth = bracketDelta(stripStrings(content.substr(first + *eq + 1), open));
    if (!open.empty() || depth > 0) {
      s.multiLine = true;
      continuing = true;
    } else {
      depth = 0;
    }
    result.statements.push_back(s);
    pos = end;
  }
  result.unterminated = continuing;
  return result;
}

std::optional<std::string> TOMLTop::unquote(std::string_view value) {
  std::size_t i = skipBlanks(value, 0);
  if (i >= value.size()) return std::nullopt;
  std::string out;
  std::size_t after = 0;
  if (value.compare(i, 3, "\"\"\"") == 0 || value.compare(i, 3, "'''") == 0) return std::nullopt;
  if (value[i] == '"') {
    auto str = basicString(value, i + 1);
    if (!str) return std::nullopt;
    out = str->first;
    after = str->second;
  } else if (value[i] == '\'') {
    const std::size_t close = value.find('\'', i + 1);
    if (close == std::string_view::npos) return std::nullopt;
    out = std::string(value.substr(i + 1, close - i - 1));
    after = close + 1;
  } else {
    return std::nullopt;
  }
  after = skipBlanks(value, after);
  if (after < value.size() && value[after] != '#' && value[after] != '\r') return std::nullopt;
  return out;
}

std::string TOMLTop::quote(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    const auto u = static_cast<unsigned char>(c);
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '"': out += "\\\""; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default:
        if (u < 0x20 || u == 0x7F) {
          static const char* kHex = "0123456789ABCDEF";
          out += "\\u00";
          out += kHex[u >> 4];
          out += kHex[u & 0xF];
        } else {
          out += c;
        }
    }
  }
  out += '"';
  return out;
}

std::optional<std::string> TOMLTop::line(std::string_view text, const std::string& key) {
  const Scan s = scan(text);
  const Statement* st = findTop(s, key);
  if (!st) return std::nullopt;
  return std::string(withoutLineBreak(text.substr(st->begin, st->end - st->begin)));
}

std::optional<std::string> TOMLTop::value(std::string_view text, const std::string& key) {
  auto l = line(text, key);
  if (!l) return std::nullopt;
  std::string_view v(*l);
  if (v.substr(0, 3) == "\xEF\xBB\xBF") v.remove_prefix(3);
  v.remove_prefix(skipBlanks(v, 0));
  auto eq = keyEnd(v);
  if (!eq) return std::nullopt;
  return unquote(v.substr(*eq + 1));
}

std::string TOMLTop::set(std::string_view text, const std::string& key, const std::optional<std::string>& newLine) {
  const Scan s = scan(text);
  std::string out(text);
  if (const Statement* st = findTop(s, key)) {
    const std::string_view whole = text.substr(st->begin, st->end - st->begin);
    const std::size_t contentEnd = st->begin + withoutLineBreak(whole).size();
    if (newLine) return out.replace(st->begin, contentEnd - st->begin, *newLine);
    std::size_t begin = st->begin;
    // The last line without a line break: the break before it goes with it,
    // as it came with it when it was added.
    if (contentEnd == st->end && begin > 0) {
      --begin;
      if (begin > 0 && text[begin - 1] == '\r') --begin;
    }
    return out.erase(begin, st->end - begin);
  }
  if (!newLine) return out;
  const std::string eol = lineBreak(text);
  const Statement* lastTop = nullptr;
  bool anyHeader = false;
  for (const auto& st : s.statements) {
    if (st.header) {
      anyHeader = true;
      break;
    }
    lastTop = &st;
  }
  if (lastTop) {
    const std::size_t at = lastTop->end;
    if (at == 0 || text[at - 1] != '\n') return out.insert(at, eol + *newLine);
    return out.insert(at, *newLine + eol);
  }
  if (anyHeader) {
    const std::size_t at = text.substr(0, 3) == "\xEF\xBB\xBF" ? 3 : 0;
    return out.insert(at, *newLine + eol);
  }
  if (out.empty() || out.back() == '\n') return out + *newLine + eol;
  return out + eol + *newLine;
}

std::optional<TOMLTop::Problem> TOMLTop::check(std::string_view text, const std::vector<std::string>& keys) {
  const Scan s = scan(text);
  for (const std::string& key : keys) {
    if (s.unterminated) return Problem{false, key};
    int count = 0;
    bool multi = false;
    for (const auto& st : s.statements) {
      if (st.header || !st.table.empty()) continue;
      if (st.name == key) {
        ++count;
        multi = multi || st.multiLine;
      } else if (st.name.rfind(key + ".", 0) == 0) {
        multi = true;  // a table under that name: not one line to change
      }
    }
    if (count > 1) return Problem{true, key};
    if (multi) return Problem{false, key};
  }
  return std::nullopt;
}

}  // namespace vigilo
