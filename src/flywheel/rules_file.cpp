#include "flywheel/rules_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace tarvomeldric {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kTemporarySuffix = ".tmp";
constexpr std::chrono::hours kAbandonedAfter{1};

bool write_all(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(file, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// The names of our temporary files: the target's, a part nobody else has, the suffix.
std::string temporary_prefix(const fs::path& target) { return target.filename().string() + "."; }

bool is_temporary_of(const fs::path& target, const fs::path& file) {
  const std::string name = file.filename().string();
  return name.starts_with(temporary_prefix(target)) && name.ends_with(kTemporarySuffix);
}

void sweep_abandoned(const fs::path& target) {
  std::error_code ignored;
  const auto now = fs::file_time_type::clock::now();
  for (fs::directory_iterator at(target.parent_path(), ignored), end; at != end;
       at.increment(ignored)) {
    if (!is_temporary_of(target, at->path())) continue;
    const auto written = fs::last_write_time(at->path(), ignored);
    if (!ignored && now - written > kAbandonedAfter) fs::remove(at->path(), ignored);
  }
}

}  // namespace

bool RulesFile::write(std::string_view text) {
  const fs::path target(path_);
  std::error_code ignored;
  if (target.has_parent_path()) fs::create_directories(target.parent_path(), ignored);
  sweep_abandoned(target);
  std::string name = (target.parent_path() / (temporary_prefix(target) + "XXXXXX")).string() +
                     std::string(kTemporarySuffix);
  const int file = ::mkostemps(name.data(), static_cast<int>(kTemporarySuffix.size()), O_CLOEXEC);
  if (file < 0) return false;
  const bool whole = write_all(file, text);
  if (::close(file) == 0 && whole) {
    set_unreadable_aside();
    fs::rename(name, target, ignored);
    if (!ignored) return true;
  }
  fs::remove(name, ignored);
  return false;
}

void RulesFile::set_unreadable_aside() {
  if (!unreadable_) return;
  unreadable_ = false;
  std::error_code ignored;
  const fs::path kept(path_ + ".corrupt");
  if (fs::is_regular_file(path_, ignored) && !fs::exists(kept, ignored)) {
    fs::rename(path_, kept, ignored);
  }
}

}  // namespace tarvomeldric
