#pragma once

#include <cstddef>

namespace velto {

// What clients can make the broker hold.

// Bytes of a name. Names are looked up in one table and printed in one line: this is ample.
inline constexpr std::size_t kMaximumNameBytes = 255;
// Names that stand at once. Each takes three descriptors.
inline constexpr std::size_t kMaximumNames = 4096;
// Names that were registered over one link and stand. A listener of the library registers one, over a link of its own.
inline constexpr std::size_t kMaximumNamesOfOneLink = 64;
// Links that are open at once: one for every connection and every listener of the library, of all processes. Each takes
// one descriptor.
inline constexpr std::size_t kMaximumLinks = 16384;

// Descriptors for all of that, and some for the program itself.
inline constexpr std::size_t kDescriptorsOfOneName = 3;
inline constexpr std::size_t kDescriptorsOfTheProgram = 512;
inline constexpr std::size_t kNeededDescriptors =
    kMaximumLinks + kDescriptorsOfOneName * kMaximumNames + kDescriptorsOfTheProgram;

// The limits in use; tests set smaller ones.
struct BrokerLimits {
  std::size_t names = kMaximumNames;
  std::size_t namesOfOneLink = kMaximumNamesOfOneLink;
  std::size_t links = kMaximumLinks;
};

}  // namespace velto
