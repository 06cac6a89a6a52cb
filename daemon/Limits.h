#pragma once

#include <algorithm>
#include <cstddef>

#include "VeltoIPC/Limits.h"

namespace velto {

// The limits in use; tests set smaller ones.
struct BrokerLimits {
  std::size_t names = limits::kBrokerNames;
  std::size_t namesOfOneProcess = limits::kBrokerNamesOfOneProcess;
  std::size_t namesOfOneLink = limits::kBrokerNamesOfOneLink;
  std::size_t links = limits::kBrokerLinks;
  std::size_t descriptors = limits::kBrokerDescriptors;
  std::size_t waiters = limits::kBrokerWaiters;
  std::size_t waitersOfOneProcess = limits::kBrokerWaitersOfOneProcess;
  std::size_t standIns = limits::kBrokerStandIns;
  std::size_t standInsOfOneLink = limits::kBrokerStandInsOfOneLink;
  std::size_t namesOfOneAnswer = limits::kBrokerNamesOfOneAnswer;
};

// Descriptors of the program's own, of connections that have not called yet, and of calls that are being taken.
inline constexpr std::size_t kDescriptorsOfTheProgram = 1024;
inline constexpr std::size_t kNeededDescriptors = limits::kBrokerDescriptors + kDescriptorsOfTheProgram;

// The limits of a program that may have so many descriptors open. Of very few, half are kept back.
constexpr BrokerLimits limitsWithin(std::size_t descriptors) {
  const std::size_t left = descriptors - std::min(kDescriptorsOfTheProgram, descriptors / 2);
  return {.descriptors = std::min(limits::kBrokerDescriptors, left)};
}

}  // namespace velto
