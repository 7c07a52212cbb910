#pragma once

#include <cstddef>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace tarvomeldric {

// A map from text that iterates in the order of first insertion, like Python's dictionary: storing
// under a key that is present keeps the key's place. Finding, storing and erasing cost the same at
// any size; an iterator stays valid until its own entry is erased. Has no lock; its record's
// counts.
template <class V>
class OrderedMap {
 public:
  using Entry = std::pair<const std::string, V>;

  OrderedMap() = default;
  OrderedMap(const OrderedMap& other) { *this = other; }
  OrderedMap& operator=(const OrderedMap& other) {
    if (this == &other) return *this;
    clear();
    for (const auto& [key, value] : other) (*this)[key] = value;
    return *this;
  }
  OrderedMap(OrderedMap&&) noexcept = default;
  OrderedMap& operator=(OrderedMap&&) noexcept = default;
  ~OrderedMap() = default;

  std::size_t size() const { return index_.size(); }
  bool empty() const { return index_.empty(); }
  auto begin() const { return entries_.begin(); }
  auto end() const { return entries_.end(); }
  auto begin() { return entries_.begin(); }
  auto end() { return entries_.end(); }

  V* find(std::string_view key) {
    const auto it = index_.find(key);
    return it == index_.end() ? nullptr : &it->second->second;
  }
  const V* find(std::string_view key) const { return const_cast<OrderedMap*>(this)->find(key); }

  // The value under `key`, created empty when there is none.
  V& operator[](std::string_view key) {
    if (V* present = find(key)) return *present;
    const auto entry = entries_.emplace(entries_.end(), std::string(key), V{});
    index_.emplace(entry->first, entry);
    return entry->second;
  }

  bool erase(std::string_view key) {
    const auto it = index_.find(key);
    if (it == index_.end()) return false;
    const auto entry = it->second;
    index_.erase(it);  // its key is the entry's text
    entries_.erase(entry);
    return true;
  }
  void clear() {
    index_.clear();
    entries_.clear();
  }

  bool operator==(const OrderedMap& other) const { return entries_ == other.entries_; }

 private:
  std::list<Entry> entries_;
  std::unordered_map<std::string_view, typename std::list<Entry>::iterator> index_;
};

}  // namespace tarvomeldric
