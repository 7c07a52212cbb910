#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace tarvomeldric {

// Where a learner's table is kept. Several processes may share it: a reader sees the old or the new
// file, whole, never a part of one. Writing blocks, though not for the disk: a file written shortly
// before a power failure may be empty after it. It never fails for the caller. One
// thread at a time; its learner writes with its own lock held.
class RulesFile {
 public:
  // The path as the operating system takes it; empty for none.
  explicit RulesFile(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  void set_path(std::string path) { path_ = std::move(path); }

  // Whether the file could not be read to its end: the next write keeps such a one, once, with the
  // suffix ".corrupt".
  void set_unreadable(bool unreadable) { unreadable_ = unreadable; }

  // Replaces the file by one that holds `text`, making its folder when it is missing. Each write
  // goes through a temporary file of its own in the same folder, which is removed when the write
  // fails; what killed writers left there is removed after an hour. Returns whether it was written.
  bool write(std::string_view text);

 private:
  void keep_unreadable();
  void sweep_abandoned();

  std::string path_;
  bool unreadable_ = false;
  std::optional<std::chrono::steady_clock::time_point> swept_;
};

}  // namespace tarvomeldric
