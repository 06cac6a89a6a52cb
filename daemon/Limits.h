#pragma once

#include <cstddef>

#include "VeltoIPC/Limits.h"

namespace velto {

// The limits in use; tests set smaller ones.
struct BrokerLimits {
  std::size_t names = limits::kBrokerNames;
  std::size_t namesOfOneLink = limits::kBrokerNamesOfOneLink;
  std::size_t links = limits::kBrokerLinks;
};

// Descriptors for all of that, and some for the program itself.
inline constexpr std::size_t kDescriptorsOfTheProgram = 512;
inline constexpr std::size_t kNeededDescriptors =
    limits::kBrokerLinks + limits::kBrokerDescriptorsOfOneName * limits::kBrokerNames + kDescriptorsOfTheProgram;

}  // namespace velto
