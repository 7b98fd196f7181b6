#include "agents/careful_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/files.h"

namespace vigilo {
namespace {

namespace fs = std::filesystem;

// Settings files are small; a bigger one is not what we think it is.
constexpr std::size_t kMaxBytes = 16 * 1024 * 1024;
constexpr int kMaxFileDepth = 512;

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

// The folder's entry of a renamed file reaches the disk too.
void syncFolderOf(const std::string& path) {
  const std::string folder = fs::path(path).parent_path().string();
  const int fd = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
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
  auto unchanged = [&]() -> std::optional<WriteResult> {
    bool ok = true;
    int err = 0;
    auto now = current(target_, ok, err);
    if (!ok) return WriteResult{Outcome::Failed, errnoMessage("couldn't read " + path_ + " again", err)};
    if (now.has_value() != existed_ || (now && *now != bytes_)) return WriteResult{Outcome::Changed, {}};
    return std::nullopt;
  };
  std::error_code ec;
  if (!existed_) {
    const fs::path parent = fs::path(target_).parent_path();
    if (!parent.empty()) fs::create_directories(parent, ec);
    if (ec) return {Outcome::Failed, "couldn't create " + parent.string() + ": " + ec.message()};
  }
  // The new content is written and synced aside first, so that the last
  // check of the file comes right before it is put in place: no file system
  // offers to compare and replace in one step, and a rename is the shortest
  // window there is.
  const std::string aside = target_ + ".vigilo-new-" + std::to_string(::getpid());
  Result r = writeFileDurably(aside, data, mode_);
  if (!r) return {Outcome::Failed, r.message()};
  if (beforeWrite) beforeWrite();
  if (auto problem = unchanged()) {
    ::unlink(aside.c_str());
    return *problem;
  }
  // A new file is linked into place: link() refuses when the name appeared
  // meanwhile, where rename() would replace it unseen.
  const int moved = existed_ ? ::rename(aside.c_str(), target_.c_str()) : ::link(aside.c_str(), target_.c_str());
  const int moveErr = errno;
  if (moved != 0 || !existed_) ::unlink(aside.c_str());
  if (moved != 0) {
    if (moveErr == EEXIST) return {Outcome::Changed, {}};
    return {Outcome::Failed, errnoMessage("couldn't replace " + path_, moveErr)};
  }
  syncFolderOf(target_);
  return {Outcome::Written, {}};
}

CarefulFile::WriteResult CarefulFile::remove() const {
  if (!existed_) return {Outcome::Written, {}};
  bool ok = true;
  int err = 0;
  auto now = current(target_, ok, err);
  if (!ok) return {Outcome::Failed, errnoMessage("couldn't read " + path_ + " again", err)};
  if (!now || *now != bytes_) return {Outcome::Changed, {}};
  if (::unlink(target_.c_str()) != 0) return {Outcome::Failed, errnoMessage("couldn't remove " + path_, errno)};
  return {Outcome::Written, {}};
}

std::optional<nlohmann::ordered_json> parseJsonObject(std::string_view bytes) {
  if (bytes.find_first_not_of(" \t\r\n") == std::string_view::npos) return nlohmann::ordered_json::object();
  if (!jsonNestingWithin(bytes, kMaxFileDepth)) return std::nullopt;
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
