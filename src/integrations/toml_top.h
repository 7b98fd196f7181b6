#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vigilo {

// Line-by-line editing of a TOML file that belongs to someone else (Codex's
// config.toml): it finds statements without parsing values, so everything
// it does not touch stays byte for byte as the person wrote it (comments,
// blank lines, order, CRLF, a missing final newline).
class TOMLTop {
 public:
  TOMLTop() = delete;

  // One statement: a key/value pair (which may span lines, for arrays and
  // multi-line strings) or a table header.
  struct Statement {
    bool header = false;
    // The dotted name with each part unquoted and joined by ".": the key of
    // a pair, the table's name of a header.
    std::string name;
    // The table the pair stands in ("" at top level).
    std::string table;
    std::size_t begin = 0;  // first byte of its first line
    std::size_t end = 0;    // just after its last line's line break (or the text's end)
    bool multiLine = false;
  };
  struct Scan {
    std::vector<Statement> statements;
    // Set when a string or bracket is still open at the end of the text.
    bool unterminated = false;
  };

  // Every statement of `text`, in order; comments and blank lines are not
  // statements. Text inside strings (also multi-line ones) and brackets
  // followed across lines never starts a statement.
  static Scan scan(std::string_view text);

  // The offset just after the key of a "key = value" line (at the "="), or
  // nothing when `line` doesn't start with a key. `name` gets the unquoted
  // dotted key.
  static std::optional<std::size_t> keyEnd(std::string_view line, std::string* name = nullptr);
  // `line` with every string's content blanked, so that "#", "[" and "=" in
  // strings are not taken for syntax. `open` carries a multi-line string
  // (`"""` or `'''`) across calls; empty when none is open.
  static std::string stripStrings(std::string_view line, std::string& open);
  // Opening minus closing brackets of a line already stripped of strings,
  // comments not counted.
  static int bracketDelta(std::string_view stripped);
  // The text of a single-line basic or literal string value ("never" for
  // `"never"` or `'never'`, escapes of basic strings applied); nothing for
  // anything else.
  static std::optional<std::string> unquote(std::string_view value);
  // `text` as a TOML basic string: backslashes doubled, quotes escaped,
  // control characters escaped, in double quotes.
  static std::string quote(std::string_view text);

  // The whole line (without its line break) that sets top-level `key`, or
  // nothing when none does.
  static std::optional<std::string> line(std::string_view text, const std::string& key);
  // The value of top-level `key` as a string (see unquote).
  static std::optional<std::string> value(std::string_view text, const std::string& key);
  // `text` with top-level `key` set by `newLine` (a whole line, without a
  // line break) or removed when `newLine` is nothing. A new line goes after
  // the last top-level pair, or at the top when there is none; it takes the
  // file's line breaks. Call `check` first: with the key set twice only the
  // first is changed.
  static std::string set(std::string_view text, const std::string& key, const std::optional<std::string>& newLine);
  // Why `key` can't be edited line by line in `text`, or nothing when it
  // can: "sets <key> twice", or "can't edit <key>" when its value spans
  // lines or the text ends inside a string or bracket.
  struct Problem {
    bool twice = false;
    std::string key;
  };
  static std::optional<Problem> check(std::string_view text, const std::vector<std::string>& keys);

  // "\r\n" when the text's first line break is one, else "\n".
  static std::string lineBreak(std::string_view text);
};

}  // namespace vigilo
