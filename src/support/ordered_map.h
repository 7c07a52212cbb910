#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tarvomeldric {

// A map from text that iterates in the order of first insertion, like the host's dictionary:
// storing under a key that is present keeps the key's place. Erasing costs a walk; nothing hot
// erases.
template <class V>
class OrderedMap {
 public:
  using Entry = std::pair<std::string, V>;

  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }
  auto begin() { return entries_.begin(); }
  auto end() { return entries_.end(); }

  V* find(std::string_view key) {
    auto it = index_.find(key);
    return it == index_.end() ? nullptr : &entries_[it->second].second;
  }
  const V* find(std::string_view key) const { return const_cast<OrderedMap*>(this)->find(key); }

  // The value under `key`, created empty when there is none.
  V& operator[](std::string_view key) {
    if (V* present = find(key)) return *present;
    index_.emplace(std::string(key), entries_.size());
    return entries_.emplace_back(std::string(key), V{}).second;
  }

  bool erase(std::string_view key) {
    auto it = index_.find(key);
    if (it == index_.end()) return false;
    const std::size_t place = it->second;
    index_.erase(it);
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(place));
    for (auto& [_, at] : index_) at -= at > place ? 1 : 0;
    return true;
  }
  void clear() {
    entries_.clear();
    index_.clear();
  }

  bool operator==(const OrderedMap& other) const { return entries_ == other.entries_; }

 private:
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>{}(text);
    }
  };

  std::vector<Entry> entries_;
  std::unordered_map<std::string, std::size_t, TextHash, std::equal_to<>> index_;
};

}  // namespace tarvomeldric
