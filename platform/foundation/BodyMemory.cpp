// The rare half: the first piece that a thread lets go of, those for which there is no room, and the end of a thread.
#include "platform/foundation/BodyMemory.h"

#include <utility>

namespace velto {

thread_local constinit std::array<BodyMemory::Shelf, BodyMemory::kShelves> BodyMemory::shelves_{};
thread_local constinit std::uint32_t BodyMemory::room_ = 0;

// Empties the shelves of its thread at its end.
class BodyMemory::Closing {
 public:
  Closing() noexcept { room_ = kPiecesOfOneShelf; }
  ~Closing() {
    room_ = 0;
    empty();
  }
  Closing(const Closing&) = delete;
  Closing& operator=(const Closing&) = delete;
};

void BodyMemory::empty() noexcept {
  for (Shelf& shelf : shelves_) {
    shelf.count = 0;
    for (Piece* each = std::exchange(shelf.first, nullptr); each != nullptr;) {
      ::operator delete(std::exchange(each, each->next));
    }
  }
}

void BodyMemory::releaseElsewhere(void* memory, std::size_t bytes) noexcept {
  ::operator delete(memory);
  if (!isPooled(bytes) || room_ > 0) return;
  // From the next one on there is room, unless the thread has come to its end.
  static thread_local const Closing closing;
  static_cast<void>(closing);
}

}  // namespace velto
