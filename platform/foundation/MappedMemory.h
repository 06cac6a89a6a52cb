#pragma once

#include <cstddef>

class NSData;
class NSError;

namespace velto {

// What keeps the bytes of data that is mapped memory.
struct MappedMemory {
  void* address;
  std::size_t length;
  // Of its own, of memory that others may be given as it is; -1 when there is none.
  int descriptor;
  // Whether it has come from another process.
  bool isForeign;

  // Lets go of it.
  void operator()() const noexcept;
};

// As NSData::dataMappingDescriptor(), for memory that has come from another process: it must have exactly so many
// bytes, and all of them their memory; nothing is kept of the descriptor. Of all such
// memory no more than `most` are mapped at any time.
NSData mapForeignMemory(int borrowedDescriptor, std::size_t length, std::size_t most, NSError& error);

}  // namespace velto
