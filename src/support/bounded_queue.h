#pragma once

#include <cstddef>
#include <deque>
#include <initializer_list>

namespace tarvomeldric {

// A queue of at most `Capacity` values: appending to a full one drops the oldest.
// Has no lock; its record's counts.
template <class T, std::size_t Capacity>
class BoundedQueue {
 public:
  static constexpr std::size_t kCapacity = Capacity;
  using value_type = T;

  BoundedQueue() = default;
  BoundedQueue(std::initializer_list<T> values) {
    for (const T& value : values) append(value);
  }

  void append(T value) {
    if (values_.size() == Capacity) values_.pop_front();
    values_.push_back(value);
  }
  void erase(std::size_t i) { values_.erase(values_.begin() + static_cast<std::ptrdiff_t>(i)); }
  void clear() { values_.clear(); }

  std::size_t size() const { return values_.size(); }
  bool empty() const { return values_.empty(); }
  const T& operator[](std::size_t i) const { return values_[i]; }
  T& operator[](std::size_t i) { return values_[i]; }
  auto begin() const { return values_.begin(); }
  auto end() const { return values_.end(); }

  bool operator==(const BoundedQueue& other) const { return values_ == other.values_; }

 private:
  std::deque<T> values_;
};

}  // namespace tarvomeldric
