#pragma once

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSObject.h"
#include "platform/xpc/system/Descriptor.h"

// An open file descriptor as a value: of a file, a pipe, a socket, shared memory, whatever the kernel passes on. All
// handles that are copies of each other have one descriptor, which is closed with the last of them: those in messages
// that are on their way count, and a frame that is sent needs no descriptor more. It is close-on-exec, and closed in
// the child of a fork. In a message it comes out at the other end as a descriptor of that process, of the same open
// file, where the receiving interface admits the class (NSXPCInterface; no default set but that of an argument of the
// class does); a receiver that admits none holds none. See NSObject for nil and threads. Handles are equal when they
// are copies of each other; one that has come is equal to no other, and none travels in a key of a dictionary or in a
// set.
class VELTO_EXPORT NSFileDescriptor : public NSObject {
 public:
  NSFileDescriptor() noexcept = default;
  NSFileDescriptor(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }

  static velto::Class classObject();

  // Takes an open descriptor over: nobody else may close it any more. nil and `*error` (domain "org.velto.platform",
  // code = errno) when it is not open (EBADF).
  [[nodiscard]] static NSFileDescriptor fileDescriptorTaking(int takenDescriptor, NSError* error = nullptr);
  // Of a duplicate; the descriptor stays the caller's. nil and `*error` as above, when it is not open or the process
  // may have no more (EMFILE).
  [[nodiscard]] static NSFileDescriptor fileDescriptorDuplicating(int borrowedDescriptor, NSError* error = nullptr);

  // Borrowed: open for as long as a copy of this handle lives, to be used and not to be closed. -1 for nil, and in the
  // child of a fork.
  [[nodiscard]] int descriptor() const noexcept;
  // A duplicate for the caller, who closes it; close-on-exec. -1 and `*error` as above; of nil EBADF.
  [[nodiscard]] int duplicate(NSError* error = nullptr) const;

  // For the platform. Not null.
  static NSFileDescriptor fileDescriptorWithDescriptor(velto::system::SharedDescriptor descriptor);

 private:
  explicit NSFileDescriptor(velto::ObjectBody* body) noexcept : NSObject(body) {}
};
