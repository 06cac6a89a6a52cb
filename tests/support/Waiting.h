#pragma once

#include <chrono>
#include <functional>
#include <future>

namespace velto::testing {

// How long a test waits for something that must come. Generous, since it only costs when a test fails.
inline constexpr std::chrono::seconds kBound{20};

// Asks again and again until the answer is yes; false when the bound has passed. For what announces itself to nobody,
// such as a count of descriptors.
bool eventually(const std::function<bool()>& predicate, std::chrono::milliseconds bound = kBound);

[[noreturn]] void giveUp(const char* what);

// The result of a call that was started in the background. A call that never returns could not be cleaned up after:
// it ends the program.
template <class T>
T finish(std::future<T>& call) {
  if (call.wait_for(kBound) != std::future_status::ready) giveUp("a call in the background never returned");
  return call.get();
}

template <class Function>
auto inBackground(Function function) {
  return std::async(std::launch::async, std::move(function));
}

}  // namespace velto::testing
