#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace tarvomeldric {

// A map from text that iterates in the order of first insertion, like Python's dictionary: storing
// under a key that is present keeps the key's place. Finding, storing and erasing cost the same at
// any size, and a value stays where it is. An iterator serves until its own entry is erased or
// another one is stored. Has no lock; its record's counts.
template <class V>
class OrderedMap {
 public:
  using Entry = std::pair<const std::string, V>;

 private:
  static constexpr std::size_t kPast = std::string::npos;  // whatever is stored meanwhile

  // Null where one was erased. A walk meets the entries in a row, none by way of the one before it.
  using Entries = std::vector<std::unique_ptr<Entry>>;

  template <class E>
  class Iterator {
   public:
    using iterator_category = std::bidirectional_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = E*;
    using reference = E&;

    Iterator() = default;
    Iterator(const Entries& entries, std::size_t at) : entries_(&entries), at_(at) { skip(); }

    E& operator*() const { return *(*entries_)[at_]; }
    E* operator->() const { return (*entries_)[at_].get(); }
    Iterator& operator++() {
      ++at_;
      skip();
      return *this;
    }
    Iterator& operator--() {
      at_ = std::min(at_, entries_->size());
      while (!(*entries_)[--at_]) {
      }
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    Iterator operator--(int) {
      Iterator before = *this;
      --*this;
      return before;
    }
    bool operator==(const Iterator& other) const {
      return at_ == other.at_ || (is_past() && other.is_past());
    }

   private:
    bool is_past() const { return at_ >= entries_->size(); }
    void skip() {
      while (!is_past() && !(*entries_)[at_]) ++at_;
    }

    const Entries* entries_ = nullptr;
    std::size_t at_ = 0;
  };

 public:
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
  auto begin() const { return Iterator<const Entry>(entries_, 0); }
  auto end() const { return Iterator<const Entry>(entries_, kPast); }
  auto begin() { return Iterator<Entry>(entries_, 0); }
  auto end() { return Iterator<Entry>(entries_, kPast); }

  V* find(std::string_view key) {
    const auto it = index_.find(key);
    return it == index_.end() ? nullptr : &entries_[it->second]->second;
  }
  const V* find(std::string_view key) const { return const_cast<OrderedMap*>(this)->find(key); }

  // The value under `key`, created empty when there is none.
  V& operator[](std::string_view key) {
    if (V* present = find(key)) return *present;
    if (entries_.size() > 2 * size() + kSpare) close_gaps();
    auto& entry = entries_.emplace_back(std::make_unique<Entry>(std::string(key), V{}));
    index_.emplace(entry->first, entries_.size() - 1);
    return entry->second;
  }

  bool erase(std::string_view key) {
    const auto it = index_.find(key);
    if (it == index_.end()) return false;
    const auto entry = std::move(entries_[it->second]);
    index_.erase(it);  // its key is the entry's text
    return true;
  }
  void clear() {
    index_.clear();
    entries_.clear();
  }

  bool operator==(const OrderedMap& other) const {
    return std::equal(begin(), end(), other.begin(), other.end());
  }

 private:
  static constexpr std::size_t kSpare = 16;  // gaps that are not worth closing

  void close_gaps() {
    std::erase(entries_, nullptr);
    for (std::size_t at = 0; at < entries_.size(); ++at) index_[entries_[at]->first] = at;
  }

  Entries entries_;
  std::unordered_map<std::string_view, std::size_t> index_;
};

}  // namespace tarvomeldric
