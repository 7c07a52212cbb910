#include "flywheel/rules_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace tarvomeldric {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kTemporarySuffix = ".tmp";
constexpr std::chrono::hours kAbandonedAfter{1};
constexpr mode_t kFreshMode = 0644;

bool write_all(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(file, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

fs::path folder_of(const fs::path& target) {
  return target.has_parent_path() ? target.parent_path() : fs::path(".");
}

// The names of our temporary files: the target's, six characters that nobody else has, the suffix.
constexpr std::string_view kUnique = "XXXXXX";

std::string temporary_prefix(const fs::path& target) { return target.filename().string() + "."; }

// Makes a fresh file beside the target and fills in its name; -1 when it cannot be made.
int make_temporary(const std::string& target, std::string& name) {
  name = target;
  name.append(".").append(kUnique).append(kTemporarySuffix);
  return ::mkostemps(name.data(), static_cast<int>(kTemporarySuffix.size()), O_CLOEXEC);
}

bool is_temporary_of(const fs::path& target, const fs::directory_entry& file) {
  const std::string name = file.path().filename().string();
  const std::string prefix = temporary_prefix(target);
  std::error_code ignored;
  return name.size() == prefix.size() + kUnique.size() + kTemporarySuffix.size() &&
         name.starts_with(prefix) && name.ends_with(kTemporarySuffix) &&
         file.is_regular_file(ignored);
}

// Lets the file of one name take another one's place. Changing places with a file that is there and
// removing that one afterwards is as atomic as renaming over it, and keeps away from the disk: some
// file systems answer a rename over a file by sending the new one's text to the disk and then have
// blocks of the old one to free, for which the caller waits.
bool take_place(const std::string& fresh, const std::string& target, bool over_a_file) {
  if (over_a_file &&
      ::renameat2(AT_FDCWD, fresh.c_str(), AT_FDCWD, target.c_str(), RENAME_EXCHANGE) == 0) {
    ::unlink(fresh.c_str());
    return true;
  }
  return ::rename(fresh.c_str(), target.c_str()) == 0;
}

}  // namespace

bool RulesFile::write(std::string_view text) {
  sweep_abandoned();
  std::error_code ignored;
  std::string name;
  int file = make_temporary(path_, name);
  if (file < 0 && errno == ENOENT) {
    fs::create_directories(folder_of(path_), ignored);
    file = make_temporary(path_, name);
  }
  if (file < 0) return false;
  // Which users may read the file is up to the one who made it.
  struct stat present = {};
  const bool over_a_file = ::stat(path_.c_str(), &present) == 0 && S_ISREG(present.st_mode);
  static_cast<void>(::fchmod(file, over_a_file ? present.st_mode & 0777 : kFreshMode));
  const bool whole = write_all(file, text);
  if (::close(file) == 0 && whole) {
    keep_unreadable();
    if (take_place(name, path_, over_a_file)) return true;
  }
  ::unlink(name.c_str());
  return false;
}

void RulesFile::sweep_abandoned() {
  const auto now = std::chrono::steady_clock::now();
  if (swept_ && now - *swept_ < kAbandonedAfter) return;
  swept_ = now;
  std::error_code ignored;
  const auto file_now = fs::file_time_type::clock::now();
  for (fs::directory_iterator at(folder_of(path_), ignored), end; at != end;
       at.increment(ignored)) {
    if (!is_temporary_of(path_, *at)) continue;
    const auto written = at->last_write_time(ignored);
    if (!ignored && file_now - written > kAbandonedAfter) fs::remove(at->path(), ignored);
  }
}

// A second name for it: at no moment is there no file.
void RulesFile::keep_unreadable() {
  if (!unreadable_) return;
  unreadable_ = false;
  std::error_code ignored;
  if (fs::is_regular_file(path_, ignored)) {
    fs::create_hard_link(path_, path_ + ".corrupt", ignored);
  }
}

}  // namespace tarvomeldric
