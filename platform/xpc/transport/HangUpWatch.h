#pragma once

#include <functional>
#include <memory>
#include <utility>

namespace velto::transport {

// Hears that the writing ends of a pipe are gone: the handler is called once, on a thread of the reactor, and must not
// block. Letting go of the watch ends it. The kernel watches each pipe once, whoever watches it here: it is not made
// for hundreds of watches on one.
//
// Thread-safe.
class HangUpWatch {
 public:
  // Of a pipe's reading end, borrowed. Null, and errno, when the kernel cannot watch it.
  static std::shared_ptr<HangUpWatch> make(int pipe, std::function<void()> handler);
  ~HangUpWatch();
  HangUpWatch(const HangUpWatch&) = delete;
  HangUpWatch& operator=(const HangUpWatch&) = delete;

 private:
  class Pipe;
  class Pipes;
  explicit HangUpWatch(std::shared_ptr<Pipe> pipe) : pipe_(std::move(pipe)) {}

  const std::shared_ptr<Pipe> pipe_;
};

}  // namespace velto::transport
