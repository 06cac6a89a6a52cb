#pragma once

#include <cstddef>
#include <iterator>
#include <utility>
#include <vector>

namespace velto {

// First in, first out, for queues of which there are many and nearly all are empty: one that is empty holds no memory.
// What is added may move what is there.
template <class T>
class Fifo {
 public:
  using iterator = typename std::vector<T>::iterator;
  using const_iterator = typename std::vector<T>::const_iterator;

  Fifo() noexcept = default;
  Fifo(Fifo&& other) noexcept : items_(std::exchange(other.items_, {})), first_(std::exchange(other.first_, 0)) {}
  Fifo& operator=(Fifo&& other) noexcept {
    items_ = std::exchange(other.items_, {});
    first_ = std::exchange(other.first_, 0);
    return *this;
  }

  bool empty() const noexcept { return items_.empty(); }
  std::size_t size() const noexcept { return items_.size() - first_; }
  iterator begin() noexcept { return items_.begin() + static_cast<std::ptrdiff_t>(first_); }
  iterator end() noexcept { return items_.end(); }
  const_iterator begin() const noexcept { return items_.begin() + static_cast<std::ptrdiff_t>(first_); }
  const_iterator end() const noexcept { return items_.end(); }
  T& front() noexcept { return items_[first_]; }
  const T& front() const noexcept { return items_[first_]; }
  T& back() noexcept { return items_.back(); }
  T& operator[](std::size_t index) noexcept { return items_[first_ + index]; }
  const T& operator[](std::size_t index) const noexcept { return items_[first_ + index]; }

  void push_back(T item) { emplace_back(std::move(item)); }
  // Raises std::bad_alloc, and changes nothing, when there is no memory.
  template <class... Arguments>
  T& emplace_back(Arguments&&... arguments) {
    if (items_.size() == items_.capacity()) makeRoom();
    return items_.emplace_back(std::forward<Arguments>(arguments)...);
  }
  void pop_front() noexcept { pop_front(1); }
  void pop_front(std::size_t count) noexcept {
    if (count == size()) return clear();
    // What is taken out is let go of at once; its place, when the next finds no room.
    for (; count > 0; --count) {
      [[maybe_unused]] const T taken = std::move(items_[first_++]);
    }
  }
  void pop_back() noexcept {
    if (size() == 1) return clear();
    items_.pop_back();
  }
  template <class Predicate>
  void eraseIf(Predicate predicate) {
    items_.erase(items_.begin(), begin());
    first_ = 0;
    std::erase_if(items_, std::move(predicate));
    if (items_.empty()) clear();
  }
  void clear() noexcept {
    // Empty before anything is destroyed: that may look at this.
    const std::vector<T> cleared = std::exchange(items_, {});
    first_ = 0;
  }

 private:
  void makeRoom() {
    if (first_ < items_.size() / 2 || first_ == 0) {
      std::vector<T> larger;
      larger.reserve(2 * size() + kFirstRoom);
      larger.insert(larger.end(), std::move_iterator(begin()), std::move_iterator(end()));
      items_ = std::move(larger);
    } else {
      items_.erase(items_.begin(), begin());
    }
    first_ = 0;
  }

  static constexpr std::size_t kFirstRoom = 2;

  // Those before the first have been moved from.
  std::vector<T> items_;
  std::size_t first_ = 0;
};

}  // namespace velto
