#include "engine/state_files.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <mutex>

#include "platform/runtime_folder.h"

namespace vigilo {
namespace {

// The heartbeat "alive" and the "hold" marker are rewritten every tick:
// where the user has a runtime folder (a tmpfs) they live in the app
// folder's beat folder there (beatFolderFor), so an idle app never wakes
// the disk. Each one's meaning is its existence or its time, which a
// reboot (when the tmpfs goes) makes moot on Linux, where the sleep lock
// ends with the app anyway.
bool beatFile(std::string_view name) { return name == "alive" || name == "hold"; }

// The beat folder of `dir`, or "" for none. Asked on every path of a beat
// file, so kept per folder.
std::string beatDirOf(const std::string& dir) {
  static std::mutex mutex;
  static std::map<std::string, std::string> known;
  std::lock_guard<std::mutex> lock(mutex);
  auto it = known.find(dir);
  if (it == known.end()) it = known.emplace(dir, beatFolderFor(dir)).first;
  return it->second;
}

std::string folderOf(const std::string& dir, std::string_view name) {
  if (!beatFile(name)) return dir;
  std::string beat = beatDirOf(dir);
  return beat.empty() ? dir : beat;
}

}  // namespace

StateFiles::StateFiles(std::string dir) : dir_(std::move(dir)) {}

std::string StateFiles::path(std::string_view name) const { return folderOf(dir_, name) + "/" + std::string(name); }

bool StateFiles::ensureDir() const {
  // Hold reasons, agent events and replies name projects and work: only
  // the user may read them.
  return makePrivateFolder(dir_).isOk();
}

// Makes the folder that holds `name`.
static bool ensureDirOf(const StateFiles& files, std::string_view name) {
  if (!files.ensureDir()) return false;
  const std::string folder = folderOf(files.dir(), name);
  return folder == files.dir() || makePrivateFolder(folder).isOk();
}

bool StateFiles::writeDurably(std::string_view name, std::string_view data, std::optional<mode_t> mode) const {
  if (!ensureDirOf(*this, name)) return false;
  return writeFileDurably(path(name), data, mode).isOk();
}

bool StateFiles::touch(std::string_view name) const {
  const std::string p = path(name);
  struct stat st {};
  if (::lstat(p.c_str(), &st) == 0) {
    // The heartbeat is touched every tick: setting the times by name changes
    // only the file's attributes, which the app's own folder watch ignores,
    // so the beat never wakes the app a second time.
    if (S_ISREG(st.st_mode)) return ::utimensat(AT_FDCWD, p.c_str(), nullptr, AT_SYMLINK_NOFOLLOW) == 0;
    // A link (even one to a file) or anything else is a damaged record: the
    // watchdog and the next launch look for a plain file. It is replaced.
    if (S_ISDIR(st.st_mode) || ::unlink(p.c_str()) != 0) return false;
  }
  if (!ensureDirOf(*this, name)) return false;
  int fd = ::open(p.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kPrivateFileMode);
  if (fd < 0) return false;
  bool ok = ::futimens(fd, nullptr) == 0;
  return (::close(fd) == 0) && ok;
}

bool StateFiles::remove(std::string_view name) const {
  const std::string folder = folderOf(dir_, name);
  // Left in the app folder by a version that kept it there.
  if (folder != dir_) ::unlink((dir_ + "/" + std::string(name)).c_str());
  if (::unlink(path(name).c_str()) != 0 && errno != ENOENT && errno != ENOTDIR) return false;
  // The beat folder goes with its last file; one still in use stays.
  if (folder != dir_) ::rmdir(folder.c_str());
  return true;
}

bool StateFiles::exists(std::string_view name) const {
  struct stat st {};
  if (::stat(path(name).c_str(), &st) == 0) return true;
  // A record an earlier version left in the app folder still counts.
  return folderOf(dir_, name) != dir_ && ::stat((dir_ + "/" + std::string(name)).c_str(), &st) == 0;
}

std::optional<std::string> StateFiles::read(std::string_view name, std::size_t limit) const {
  return readWholeFile(path(name), limit);
}

std::optional<Time> StateFiles::modified(std::string_view name) const {
  struct stat st {};
  if (::stat(path(name).c_str(), &st) != 0) return std::nullopt;
  return static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) / 1e9;
}

KeptTouch::KeptTouch(const StateFiles& files, std::string name) : files_(files), name_(std::move(name)) {}

KeptTouch::~KeptTouch() { close(); }

void KeptTouch::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool KeptTouch::touch() {
  if (fd_ >= 0) {
    // A file with no name left was removed or replaced: the beat belongs on
    // the one that has it now. Only the app and its watchdog touch the file,
    // so every fifth beat is soon enough to look.
    struct stat st {};
    if (::futimens(fd_, nullptr) == 0 && (++beats_ % 5 != 0 || (::fstat(fd_, &st) == 0 && st.st_nlink > 0))) {
      return true;
    }
    close();
  }
  if (!files_.touch(name_)) return false;
  // Read-only: the owner may set the times, and a descriptor open for
  // writing would report a write to the folder's watch when it closes.
  fd_ = ::open(files_.path(name_).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  return true;
}

}  // namespace vigilo
