#include "agents/careful_file.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/files.h"

namespace vigilo {
namespace {

namespace fs = std::filesystem;

// Settings files are small; a bigger one is not what we think it is.
constexpr std::size_t kMaxBytes = 16 * 1024 * 1024;
constexpr int kMaxDepth = 512;

// The file `path` stands for: a symbolic link (a dotfiles manager's, say)
// is followed so that the link itself survives the edit.
std::string contentPath(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return path;
  std::error_code ec;
  fs::path resolved = fs::weakly_canonical(path, ec);
  return ec ? path : resolved.string();
}

// What the file holds now: nothing when missing, the bytes otherwise.
// `ok` is false when it exists but can't be read.
std::optional<std::string> current(const std::string& path, bool& ok, int& err) {
  ok = true;
  err = 0;
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    err = errno;
    ok = errno == ENOENT || errno == ENOTDIR;
    return std::nullopt;
  }
  auto bytes = readWholeFile(path, kMaxBytes);
  if (!bytes) {
    ok = false;
    err = S_ISREG(st.st_mode) ? (st.st_size > static_cast<off_t>(kMaxBytes) ? EFBIG : EACCES) : EISDIR;
  }
  return bytes;
}

}  // namespace

std::optional<CarefulFile> CarefulFile::read(const std::string& path, std::string* problem) {
  CarefulFile f;
  f.path_ = path;
  f.target_ = contentPath(path);
  bool ok = true;
  int err = 0;
  auto bytes = current(f.target_, ok, err);
  if (!ok) {
    if (problem) *problem = std::strerror(err);
    return std::nullopt;
  }
  if (bytes) {
    struct stat st {};
    if (::stat(f.target_.c_str(), &st) == 0) f.mode_ = st.st_mode & 07777;
    f.existed_ = true;
    f.bytes_ = std::move(*bytes);
  }
  return f;
}

Result CarefulFile::backUp() const {
  if (!existed_) return Result::ok();
  return writeFileDurably(backupPath(), bytes_, mode_);
}

CarefulFile::WriteResult CarefulFile::replace(std::string_view data, const std::function<void()>& beforeWrite) const {
  if (beforeWrite) beforeWrite();
  bool ok = true;
  int err = 0;
  auto now = current(target_, ok, err);
  if (!ok) return {Outcome::Failed, errnoMessage("couldn't read " + path_ + " again", err)};
  if (now.has_value() != existed_ || (now && *now != bytes_)) return {Outcome::Changed, {}};

  if (existed_) {
    Result r = writeFileDurably(target_, data, mode_);
    if (!r) return {Outcome::Failed, r.message()};
    return {Outcome::Written, {}};
  }

  std::error_code ec;
  const fs::path parent = fs::path(target_).parent_path();
  if (!parent.empty()) fs::create_directories(parent, ec);
  if (ec) return {Outcome::Failed, "couldn't create " + parent.string() + ": " + ec.message()};
  // The new file is written aside and linked into place: link() refuses when
  // the name appeared meanwhile, where rename() would replace it unseen.
  const std::string aside = target_ + ".vigilo-new-" + std::to_string(::getpid());
  Result r = writeFileDurably(aside, data);
  if (!r) return {Outcome::Failed, r.message()};
  const int linked = ::link(aside.c_str(), target_.c_str());
  const int linkErr = errno;
  ::unlink(aside.c_str());
  if (linked != 0) {
    if (linkErr == EEXIST) return {Outcome::Changed, {}};
    return {Outcome::Failed, errnoMessage("couldn't create " + path_, linkErr)};
  }
  return {Outcome::Written, {}};
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

std::optional<nlohmann::ordered_json> parseJsonObject(std::string_view bytes) {
  if (bytes.find_first_not_of(" \t\r\n") == std::string_view::npos) return nlohmann::ordered_json::object();
  if (!jsonNestingWithin(bytes, kMaxDepth)) return std::nullopt;
  auto j = nlohmann::ordered_json::parse(bytes.begin(), bytes.end(), nullptr, false);
  if (j.is_discarded() || !j.is_object()) return std::nullopt;
  return j;
}

std::string prettyJson(const nlohmann::ordered_json& value, std::string_view like) {
  std::string text = dumpJson(value, 2);
  if (!like.empty() && like.back() == '\n') text += '\n';
  return text;
}

}  // namespace vigilo
