#include "platform/logging/DeferredLines.h"

#include <utility>

namespace velto {

void DeferredLines::add(DeferredLine line) noexcept {
  const std::size_t bytes = line.text.length();
  MutexLock lock(mutex_);
  if (count_ == kMaximumLines || bytes > kMaximumTextBytes - textBytes_) {
    ++lostCount_;
    return;
  }
  // What lay in this place goes after the lock.
  std::swap(lines_[(first_ + count_) % kMaximumLines], line);
  ++count_;
  textBytes_ += bytes;
}

void DeferredLines::countLost(std::uint64_t count) noexcept {
  MutexLock lock(mutex_);
  lostCount_ += count;
}

bool DeferredLines::mustAsk(Time now) noexcept {
  MutexLock lock(mutex_);
  if (isBeingWritten_ || (count_ == 0 && lostCount_ == 0)) return false;
  if (asked_ && now - *asked_ < kPatience) return false;
  asked_ = now;
  return true;
}

void DeferredLines::forgetAsking() noexcept {
  MutexLock lock(mutex_);
  asked_.reset();
}

bool DeferredLines::begin() noexcept {
  MutexLock lock(mutex_);
  if (isBeingWritten_) return false;
  isBeingWritten_ = true;
  asked_.reset();
  return true;
}

void DeferredLines::finish() noexcept {
  MutexLock lock(mutex_);
  isBeingWritten_ = false;
}

// What waited is the parent's to write.
void DeferredLines::afterForkInChild() noexcept VELTO_NO_THREAD_SAFETY_ANALYSIS {
  count_ = 0;
  textBytes_ = 0;
  lostCount_ = 0;
  isBeingWritten_ = false;
  asked_.reset();
  mutex_.unlock();
}

std::size_t DeferredLines::count() const noexcept {
  MutexLock lock(mutex_);
  return count_;
}

bool DeferredLines::isEmpty() const noexcept {
  MutexLock lock(mutex_);
  return count_ == 0 && lostCount_ == 0;
}

std::optional<DeferredLine> DeferredLines::take() noexcept {
  MutexLock lock(mutex_);
  if (count_ == 0) return std::nullopt;
  std::optional<DeferredLine> line(std::exchange(lines_[first_], DeferredLine()));
  first_ = (first_ + 1) % kMaximumLines;
  --count_;
  textBytes_ -= line->text.length();
  return line;
}

std::uint64_t DeferredLines::takeLostCount() noexcept {
  MutexLock lock(mutex_);
  return std::exchange(lostCount_, 0);
}

}  // namespace velto
