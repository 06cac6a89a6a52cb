#pragma once

#include <cstddef>

// Every limit, with its unit, its value and its reason: those of each process, and here those of the broker.
#include "platform/xpc/contract/Limits.h"

namespace velto::limits {

// What clients can make the broker hold. The four totals are what all processes share: at one of them, the process
// that holds the most makes room for one that holds less.

// Names that stand at once. Each takes three descriptors.
inline constexpr std::size_t kBrokerNames = 4096;
// Names that were registered by one process and stand, over whatever links: a quarter of all.
inline constexpr std::size_t kBrokerNamesOfOneProcess = 1024;
// Names that were registered over one link and stand. A listener of the library registers one, over a link of its own.
inline constexpr std::size_t kBrokerNamesOfOneLink = 64;
// Links that are open at once: one for every connection and every listener of the library, of all processes. Each takes
// one descriptor.
inline constexpr std::size_t kBrokerLinks = 16384;
// Who waits at once until something becomes of a name: a client for its service, a service for what becomes of its own.
// None takes a descriptor.
inline constexpr std::size_t kBrokerWaiters = 16384;
// Of them those of one process: an eighth. As many as all names of a process, and as many again.
inline constexpr std::size_t kBrokerWaitersOfOneProcess = 2048;
// Names for which a tool stands in at once, so that it sees what goes over new connections. Each takes the room of a
// name besides: two descriptors of its endpoint, and a third to spare.
inline constexpr std::size_t kBrokerStandIns = 256;
// Of them those of one link. A tool looks on at one name.
inline constexpr std::size_t kBrokerStandInsOfOneLink = 16;
// Names that one answer to a tool that lists them tells of: it asks again for those behind. With names of the longest
// kind that is a tenth of a megabyte.
inline constexpr std::size_t kBrokerNamesOfOneAnswer = 256;
// Descriptors of one name: the endpoint's two, and one to watch over its listener.
inline constexpr std::size_t kBrokerDescriptorsOfOneName = 3;
// Descriptors that one link can make the broker keep: the link's own, and those of its names.
inline constexpr std::size_t kBrokerDescriptorsOfOneLink = 1 + kBrokerDescriptorsOfOneName * kBrokerNamesOfOneLink;
// Descriptors of one process: by it the broker hears that the process has died.
inline constexpr std::size_t kBrokerDescriptorsOfOneProcess = 1;
// Descriptors of all names, links and processes, when each is of another process. With a lower limit of its own the
// broker shares out what that leaves.
inline constexpr std::size_t kBrokerDescriptors =
    (kBrokerDescriptorsOfOneName + kBrokerDescriptorsOfOneProcess) * kBrokerNames +
    (1 + kBrokerDescriptorsOfOneProcess) * kBrokerLinks;

}  // namespace velto::limits
