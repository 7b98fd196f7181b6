// The byte-exact JSON edit: the text of another program's settings file is
// changed only where its value changed; every other byte (spacing, escapes,
// number spellings, key order, empty objects) stays as the person has it.

#include <algorithm>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "agents/careful_file.h"

namespace vigilo {
namespace {

using ordered_json = nlohmann::ordered_json;

// Where one value lies in the text; for objects and arrays also where each
// member lies.
struct Span {
  std::size_t begin = 0;
  std::size_t end = 0;
  char kind = 0;  // '{', '[' or 0 for anything else
  struct Part {
    std::string key;          // objects only, unescaped
    std::size_t lead = 0;     // start of the blanks before the member (after "{", "[" or ",")
    std::size_t start = 0;    // the member's first byte (its key, or the value)
    std::size_t valueAt = 0;  // objects: where the value starts
    std::size_t after = 0;    // just after the blanks that follow the value
    Span* value = nullptr;
  };
  std::vector<Part> parts;
  std::vector<Span> children;  // owns what parts point to
};

constexpr std::size_t kMaxMatch = 1'000'000;

bool blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

class Tokenizer {
 public:
  explicit Tokenizer(std::string_view text) : t_(text) {}

  std::size_t skip(std::size_t i) const {
    while (i < t_.size() && blank(t_[i])) ++i;
    return i;
  }
  std::size_t stringEnd(std::size_t i) const {
    for (++i; i < t_.size(); ++i) {
      if (t_[i] == '\\') {
        ++i;
      } else if (t_[i] == '"') {
        return i + 1;
      }
    }
    return t_.size();
  }
  // The value starting at `i` (already valid JSON: the text was checked).
  void value(std::size_t i, Span& out) const {
    out.begin = i;
    const char c = i < t_.size() ? t_[i] : 0;
    if (c == '"') {
      out.end = stringEnd(i);
      return;
    }
    if (c != '{' && c != '[') {
      while (i < t_.size() && !blank(t_[i]) && t_[i] != ',' && t_[i] != '}' && t_[i] != ']') ++i;
      out.end = i;
      return;
    }
    out.kind = c;
    const char close = c == '{' ? '}' : ']';
    std::size_t lead = i + 1;
    std::size_t j = skip(lead);
    if (j < t_.size() && t_[j] == close) {
      out.end = j + 1;
      return;
    }
    for (;;) {
      Span::Part p;
      p.lead = lead;
      p.start = j;
      if (c == '{') {
        const std::size_t keyEnd = stringEnd(j);
        p.key = ordered_json::parse(t_.begin() + j, t_.begin() + keyEnd).get<std::string>();
        j = skip(keyEnd) + 1;  // the colon
        j = skip(j);
        p.valueAt = j;
      }
      // Children are kept in a vector whose growth would move them; the
      // pointers are set once all are read.
      out.children.emplace_back();
      value(j, out.children.back());
      j = skip(out.children.back().end);
      // The blanks before a comma go with the member; those before the
      // closing bracket stay with the bracket.
      p.after = j < t_.size() && t_[j] == ',' ? j : out.children.back().end;
      out.parts.push_back(std::move(p));
      if (j >= t_.size() || t_[j] != ',') break;
      lead = j + 1;
      j = skip(lead);
    }
    for (std::size_t k = 0; k < out.parts.size(); ++k) out.parts[k].value = &out.children[k];
    out.end = std::min(t_.size(), j + 1);
  }

 private:
  std::string_view t_;
};

// How the file lays its values out.
struct Style {
  bool pretty = true;
  int width = 2;
  char fill = ' ';
  std::string eol = "\n";
};

Style styleOf(std::string_view text) {
  Style s;
  // Pretty when a line break lies inside the outermost braces.
  const std::size_t open = text.find('{');
  const std::size_t nl = open == std::string_view::npos ? open : text.find('\n', open);
  s.pretty = nl != std::string_view::npos && nl < text.find_last_not_of(" \t\r\n");
  if (text.find("\r\n") != std::string_view::npos) s.eol = "\r\n";
  for (std::size_t nl = text.find('\n'); nl != std::string_view::npos; nl = text.find('\n', nl + 1)) {
    std::size_t i = nl + 1;
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    if (i == nl + 1 || i >= text.size() || text[i] == '\n' || text[i] == '\r') continue;
    s.fill = text[nl + 1];
    s.width = s.fill == '\t' ? 1 : static_cast<int>(i - nl - 1);
    break;
  }
  return s;
}

class Editor {
 public:
  Editor(std::string_view text, Style style) : t_(text), s_(style) {}

  std::string render(const Span& span, const ordered_json& after) {
    const std::string_view old = t_.substr(span.begin, span.end - span.begin);
    if (ordered_json::parse(old.begin(), old.end(), nullptr, false) == after) return std::string(old);
    if (span.kind == '{' && after.is_object()) return object(span, after);
    if (span.kind == '[' && after.is_array()) return array(span, after);
    return dump(after, indentAt(span.begin));
  }

 private:
  // The blanks that begin the line holding offset `at`.
  std::string indentAt(std::size_t at) const {
    std::size_t line = t_.rfind('\n', at == 0 ? 0 : at - 1);
    line = line == std::string_view::npos ? 0 : line + 1;
    std::size_t i = line;
    while (i < at && (t_[i] == ' ' || t_[i] == '\t')) ++i;
    return std::string(t_.substr(line, i - line));
  }

  std::string unit() const { return std::string(static_cast<std::size_t>(s_.width), s_.fill); }

  // `value` laid out like the file, its later lines indented by `indent`.
  std::string dump(const ordered_json& value, const std::string& indent) const {
    if (!s_.pretty) return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
    const std::string text = value.dump(s_.width, s_.fill, false, ordered_json::error_handler_t::replace);
    std::string out;
    out.reserve(text.size() + 16);
    for (char c : text) {
      if (c == '\n') {
        out += s_.eol;
        out += indent;
      } else {
        out += c;
      }
    }
    return out;
  }

  // The blanks before a member added to `span`: those of its last member,
  // or, for an empty one, a new line one step in.
  std::string newLead(const Span& span) const {
    if (!span.parts.empty()) {
      const auto& last = span.parts.back();
      return std::string(t_.substr(last.lead, last.start - last.lead));
    }
    return s_.pretty ? s_.eol + indentAt(span.begin) + unit() : std::string();
  }
  std::string closing(const Span& span, std::size_t from) const {
    if (!span.parts.empty()) return std::string(t_.substr(from, span.end - 1 - from));
    return s_.pretty ? s_.eol + indentAt(span.begin) : std::string();
  }

  // Joins the members; the first one kept takes the first member's lead.
  static std::string join(char open, char close, const std::vector<std::string>& leads,
                          const std::vector<std::string>& bodies, const std::string& firstLead,
                          const std::string& tail) {
    if (bodies.empty()) return {open, close};
    std::string out(1, open);
    for (std::size_t i = 0; i < bodies.size(); ++i) {
      if (i) out += ',';
      out += i == 0 ? firstLead : leads[i];
      out += bodies[i];
    }
    return out + tail + close;
  }

  std::string object(const Span& span, const ordered_json& after) {
    std::vector<std::string> leads, bodies;
    std::string firstLead;
    std::string colon = ": ";
    if (!span.parts.empty()) {
      const auto& p = span.parts.front();
      firstLead = std::string(t_.substr(p.lead, p.start - p.lead));
      const std::size_t keyEnd = Tokenizer(t_).stringEnd(p.start);
      colon = std::string(t_.substr(keyEnd, p.valueAt - keyEnd));
    } else {
      firstLead = newLead(span);
      if (!s_.pretty) colon = ":";
    }
    std::vector<std::string> seen;
    for (const auto& p : span.parts) {
      auto it = after.find(p.key);
      if (it == after.end()) continue;
      seen.push_back(p.key);
      leads.emplace_back(t_.substr(p.lead, p.start - p.lead));
      std::string body(t_.substr(p.start, p.valueAt - p.start));
      body += render(*p.value, *it);
      body += t_.substr(p.value->end, p.after - p.value->end);
      bodies.push_back(std::move(body));
    }
    const std::string lead = newLead(span);
    const std::string inner = lead.substr(std::min(lead.size(), lead.find_last_of('\n') + 1));
    for (const auto& [key, value] : after.items()) {
      if (std::find(seen.begin(), seen.end(), key) != seen.end()) continue;
      leads.push_back(lead);
      bodies.push_back(ordered_json(key).dump() + colon + dump(value, inner));
    }
    const std::size_t tailFrom = span.parts.empty() ? span.end - 1 : span.parts.back().after;
    return join('{', '}', leads, bodies, firstLead, closing(span, tailFrom));
  }

  std::string array(const Span& span, const ordered_json& after) {
    const std::size_t n = span.parts.size();
    const std::size_t m = after.size();
    std::vector<ordered_json> before;
    before.reserve(n);
    for (const auto& p : span.parts) {
      before.push_back(ordered_json::parse(t_.begin() + p.value->begin, t_.begin() + p.value->end));
    }
    // Matching is quadratic; a huge array changed at all is written anew.
    if (n * m > kMaxMatch) return dump(after, indentAt(span.begin));
    // Items kept unchanged are matched by a longest common subsequence;
    // between two matches, old and new items pair up in order.
    std::vector<std::vector<unsigned>> lcs(n + 1, std::vector<unsigned>(m + 1, 0));
    for (std::size_t i = n; i-- > 0;) {
      for (std::size_t j = m; j-- > 0;) {
        lcs[i][j] = before[i] == after[j] ? lcs[i + 1][j + 1] + 1 : std::max(lcs[i + 1][j], lcs[i][j + 1]);
      }
    }
    std::vector<std::string> leads, bodies;
    const std::string lead = newLead(span);
    const std::string inner = lead.substr(std::min(lead.size(), lead.find_last_of('\n') + 1));
    const std::string firstLead =
        n ? std::string(t_.substr(span.parts[0].lead, span.parts[0].start - span.parts[0].lead)) : lead;
    auto keep = [&](std::size_t i, const ordered_json& value) {
      const auto& p = span.parts[i];
      leads.emplace_back(t_.substr(p.lead, p.start - p.lead));
      bodies.push_back(render(*p.value, value) + std::string(t_.substr(p.value->end, p.after - p.value->end)));
    };
    std::size_t i = 0, j = 0;
    while (i < n || j < m) {
      if (i < n && j < m && before[i] == after[j] && lcs[i][j] == lcs[i + 1][j + 1] + 1) {
        keep(i++, after[j++]);
      } else if (i < n && j < m && lcs[i][j] == lcs[i + 1][j + 1]) {
        keep(i++, after[j++]);  // changed in place
      } else if (i < n && (j == m || lcs[i + 1][j] >= lcs[i][j + 1])) {
        ++i;  // removed
      } else {
        leads.push_back(lead);
        bodies.push_back(dump(after[j++], inner));
      }
    }
    const std::size_t tailFrom = n == 0 ? span.end - 1 : span.parts.back().after;
    return join('[', ']', leads, bodies, firstLead, closing(span, tailFrom));
  }

  std::string_view t_;
  Style s_;
};

}  // namespace

std::string jsonEdited(std::string_view original, const nlohmann::ordered_json& after) {
  // A byte order mark some editors write stays where it is.
  const std::size_t start = original.rfind("\xEF\xBB\xBF", 0) == 0 ? 3 : 0;
  const std::size_t at = original.find_first_not_of(" \t\r\n", start);
  if (at == std::string_view::npos || original[at] != '{') return jsonFresh(after);
  Span root;
  Tokenizer(original).value(at, root);
  Editor editor(original, styleOf(original));
  std::string out(original.substr(0, root.begin));
  out += editor.render(root, after);
  out += original.substr(root.end);
  return out;
}

std::string jsonFresh(const nlohmann::ordered_json& value) {
  return value.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace vigilo
