#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "VeltoIPC/Outcome.h"
#include "platform/foundation/NSDictionary.h"

namespace velto::calls {

// How what a call says besides its message travels. What another end sends is checked: what is not understood is as if
// it were not there.

// Under which terms a call is made.
struct Terms {
  std::optional<std::chrono::nanoseconds> timeout;
  // It has a stream.
  bool streams = false;
};
NSDictionary dictionaryOf(const Terms& terms);
Terms termsIn(const NSDictionary& dictionary);

// How a call ended, and how many items of its stream its caller is to wait for.
NSDictionary outcomeOf(const Outcome<NSDictionary>& outcome, std::optional<std::uint64_t> items = std::nullopt);
Outcome<NSDictionary> outcomeIn(const NSDictionary& outcome);
std::optional<std::uint64_t> itemsIn(const NSDictionary& outcome);

// To an end that only knows replies.
NSDictionary replyOf(const CallError& error);

}  // namespace velto::calls
