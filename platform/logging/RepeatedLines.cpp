// A table of the places that logged within the last second. A line is known by its hash: who makes two lines collide
// has one of them counted instead of shown, which he could have had by repeating it.
#include "platform/logging/RepeatedLines.h"

#include <algorithm>
#include <functional>

#include "platform/foundation/UTF8.h"

namespace velto {

std::string HeldLines::text() const {
  std::string text(text_.data(), length_);
  if (isCut_) text += "...";
  if (count_ > 1) text += " (and " + std::to_string(count_ - 1) + " more like it)";
  return text;
}

void HeldLines::add(std::string_view text) noexcept {
  length_ = lengthCutBetweenCharacters(text, kMaximumTextBytes);
  isCut_ = length_ < text.size();
  std::copy_n(text.data(), length_, text_.data());
  ++count_;
}

bool RepeatedLines::Place::wasShown(std::size_t line) const noexcept {
  const auto end = shown.begin() + static_cast<std::ptrdiff_t>(shownCount);
  return std::find(shown.begin(), end, line) != end;
}

RepeatedLines::Verdict RepeatedLines::judge(std::uint64_t identity, std::string_view text, Time now) noexcept {
  const std::size_t line = std::hash<std::string_view>{}(text);
  MutexLock lock(mutex_);
  Place& place = placeFor(identity, now);
  Verdict verdict{true, std::nullopt};
  if (place.isOver(now)) {
    if (place.held.count() > 0) verdict.former = place.held;
    place.held.clear();
    place.begin = now;
    place.shownCount = 0;
  }
  place.identity = identity;
  place.isUsed = true;
  if (place.shownCount == kMaximumLinesPerWindow || place.wasShown(line)) {
    place.held.add(text);
    verdict.isShown = false;
  } else {
    place.shown[place.shownCount++] = line;
  }
  return verdict;
}

RepeatedLines::Place& RepeatedLines::placeFor(std::uint64_t identity, Time now) noexcept {
  const auto last = places_.end() - 1;
  const auto same = [&](const Place& place) { return place.isUsed && place.identity == identity; };
  const auto known = std::find_if(places_.begin(), last, same);
  if (known != last) return *known;
  return *std::find_if(places_.begin(), last, [&](const Place& place) { return place.isOver(now); });
}

std::optional<HeldLines> RepeatedLines::takeOver(Time now) noexcept {
  MutexLock lock(mutex_);
  for (Place& place : places_) {
    if (place.held.count() == 0 || !place.isOver(now)) continue;
    const HeldLines held = place.held;
    place.held.clear();
    return held;
  }
  return std::nullopt;
}

std::optional<HeldLines> RepeatedLines::takeAny() noexcept {
  return takeOver(Time::max());
}

std::optional<RepeatedLines::Time> RepeatedLines::nextOver() const noexcept {
  MutexLock lock(mutex_);
  std::optional<Time> next;
  for (const Place& place : places_) {
    if (place.held.count() == 0) continue;
    const Time over = place.begin + kWindow;
    if (!next || over < *next) next = over;
  }
  return next;
}

void RepeatedLines::afterForkInChild() noexcept VELTO_NO_THREAD_SAFETY_ANALYSIS {
  for (Place& place : places_) {
    place.isUsed = false;
    place.held.clear();
  }
  mutex_.unlock();
}

}  // namespace velto
