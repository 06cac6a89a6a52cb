#pragma once

#include <chrono>
#include <coroutine>
#include <cstddef>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>

#include "VeltoIPC/Outcome.h"
#include "platform/foundation/NSDictionary.h"

namespace velto {

namespace calls {
class StreamState;
}

// Items, which are messages of their own, that both ends of one call send each other while it is under way. A client
// has one from Client::open(), a service from Request::stream().
//
//   for (const NSDictionary& line : stream) print(line);                    // on a thread of one's own
//   while (auto line = co_await stream.next()) print(*line);                // in a coroutine
//   stream.forEach(print, [](velto::Outcome<NSDictionary> how) { … });      // by callbacks
//
// Whoever reads sets the pace: an end that has sent as much as the other keeps for its reader is behind until some of
// it is read. Items come in order, and none is lost; all that came before the end can still be read after it.
//
// Copies are the same stream. A client that lets go of the last one takes its call back. Thread-safe; one reads at a
// time.
class VELTO_EXPORT Stream {
 public:
  using Item = std::optional<NSDictionary>;
  using Result = Outcome<NSDictionary>;

  // The next item, to be asked for in one of two ways.
  class VELTO_EXPORT Next {
   public:
    // Sleeps until it has come; nothing at the end. May be called inside of a callback.
    Item get() const;

    bool await_ready() const noexcept { return false; }
    // Resumes where callbacks run.
    void await_suspend(std::coroutine_handle<> waiting);
    Item await_resume() { return std::move(item_); }

    explicit Next(std::shared_ptr<calls::StreamState> state) noexcept : state_(std::move(state)) {}

   private:
    std::shared_ptr<calls::StreamState> state_;
    Item item_;
  };

  // An item on its way out, in a coroutine, which is resumed where callbacks run once the other end keeps up.
  class VELTO_EXPORT Writing {
   public:
    bool await_ready();
    void await_suspend(std::coroutine_handle<> waiting);
    std::optional<CallError> await_resume() { return std::move(error_); }

    Writing(std::shared_ptr<calls::StreamState> state, NSDictionary item) noexcept
        : state_(std::move(state)), item_(std::move(item)) {}

   private:
    std::shared_ptr<calls::StreamState> state_;
    NSDictionary item_;
    std::optional<CallError> error_;
  };

  // For ranges: each step sleeps until the next item has come.
  class VELTO_EXPORT Iterator {
   public:
    using value_type = NSDictionary;
    using difference_type = std::ptrdiff_t;
    using iterator_concept = std::input_iterator_tag;

    explicit Iterator(Next next) : next_(std::move(next)), item_(next_.get()) {}
    const NSDictionary& operator*() const noexcept { return *item_; }
    Iterator& operator++() {
      item_ = next_.get();
      return *this;
    }
    void operator++(int) { ++*this; }
    friend bool operator==(const Iterator& iterator, std::default_sentinel_t) noexcept { return !iterator.item_; }

   private:
    Next next_;
    Item item_;
  };

  [[nodiscard]] Next next() const;
  [[nodiscard]] Iterator begin() const { return Iterator(next()); }
  [[nodiscard]] static std::default_sentinel_t end() noexcept { return {}; }
  // Calls `item` for one after the other, where callbacks run, and `ended` once behind the last. The next is not taken
  // before `item` has returned; one that raises an exception takes the call back.
  void forEach(std::function<void(NSDictionary)> item, std::function<void(Result)> ended) const;
  // How the reading ended: at a client's, with the answer to its call, or with why there is none; at a service's, with
  // an empty dictionary when the client has finished, or with why it has not. Sleeps until it has ended.
  [[nodiscard]] Result result() const;

  // Sends an item. While the other end is behind this waits, up to the time if there is one; on a thread of the
  // platform or of a loop it does not, and fails as full. An item that fails on its way ends the stream.
  std::optional<CallError> write(const NSDictionary& item,
                                 std::optional<std::chrono::nanoseconds> timeout = std::nullopt) const;
  // The same, but never waits.
  std::optional<CallError> tryWrite(const NSDictionary& item) const;
  [[nodiscard]] Writing writing(NSDictionary item) const;
  // No more is written: a client's service reads to the end. (A service finishes by answering.)
  void finish() const;

  // A client takes its call back; a service reads no more.
  void cancel() const;

  explicit Stream(std::shared_ptr<void> holder, std::shared_ptr<calls::StreamState> state) noexcept
      : holder_(std::move(holder)), state_(std::move(state)) {}

 private:
  // With the last one a client's call is taken back.
  std::shared_ptr<void> holder_;
  std::shared_ptr<calls::StreamState> state_;
};

}  // namespace velto
