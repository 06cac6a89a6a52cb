#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include <sys/types.h>

#include "platform/xpc/system/Probe.h"
#include "platform/xpc/system/TraceFile.h"

namespace velto::system {

// What an observer from outside sees of a connection: six steps, each of which is a probe, and an event of the trace if
// one is written. docs/tracing.md is for those who look. None of this takes a lock of the library's or needs memory;
// while nobody looks, a step costs an instruction that does nothing, and a relaxed load.
//
// A step of a call is known on both ends by one number, its thread in the trace. It comes from the number of the call,
// which end made it, and the connection's key, a random number that both ends find in the name of the connecting
// socket. That name is given only while a trace is written, and nothing is said over the wire.
class ObservedConnection {
 public:
  // The name as in errors; borrowed.
  ObservedConnection(const char* name, bool isAccepted) noexcept;
  ObservedConnection(const ObservedConnection&) = delete;
  ObservedConnection& operator=(const ObservedConnection&) = delete;

  // Connected, to this process (0 when it is not known).
  void connected(int borrowedSocket, pid_t peer) noexcept {
    VELTO_PROBE4(connect, this, name_, peer, isAccepted_);
    if (isTraced()) [[unlikely]]
      traceConnected(borrowedSocket, peer);
  }
  // A call of this end, or its reply, has been refused, by whichever end; or one of the other end has been refused
  // here. The code is that of the error, or of the wire where there is none.
  void refused(bool isOwnCall, std::uint64_t call, std::int64_t code, const char* reason) noexcept {
    VELTO_PROBE6(refuse, this, call, name_, code, reason, isOwnCall);
    if (isTraced()) [[unlikely]]
      traceRefused(isOwnCall, call, code, reason);
  }
  enum class End : unsigned char { saidGoodbye, neverConnected, interrupted, invalidatedHere };
  void ended(End how, const char* reason) noexcept {
    VELTO_PROBE4(end, this, name_, how, reason);
    if (isTraced()) [[unlikely]]
      traceEnded(how, reason);
  }

  const char* name() const noexcept { return name_; }
  // What a step of a call is threaded by; 0 when the connection has no key.
  std::uint64_t threadOf(bool isOwnCall, std::uint64_t call) const noexcept;
  std::uint64_t key() const noexcept { return key_.load(std::memory_order_relaxed); }

 private:
  void traceConnected(int borrowedSocket, pid_t peer) noexcept;
  void traceRefused(bool isOwnCall, std::uint64_t call, std::int64_t code, const char* reason) noexcept;
  void traceEnded(End how, const char* reason) noexcept;

  const char* const name_;
  const bool isAccepted_;
  std::atomic<std::uint64_t> key_{0};
};

// One step of a call, for as long as the object lives. What it is given is borrowed for that long.
class ObservedStep {
 public:
  ObservedStep(const ObservedStep&) = delete;
  ObservedStep& operator=(const ObservedStep&) = delete;

 protected:
  enum class Kind : unsigned char { send, deliver, reply, answer };

  ObservedStep() noexcept = default;
  ~ObservedStep() {
    if (connection_ != nullptr) [[unlikely]]
      finish();
  }
  void begin(const ObservedConnection& connection, Kind kind, bool isLast, std::uint64_t call,
             const std::string& selector, std::size_t bytes) noexcept;

 private:
  void finish() noexcept;

  // Set while this is traced, and only then the others.
  const ObservedConnection* connection_ = nullptr;
  Kind kind_;
  bool isLast_;
  std::uint64_t call_;
  const std::string* selector_;
  std::size_t bytes_;
  std::uint64_t began_;
};

// A call is handed over to be sent.
class SendingStep final : public ObservedStep {
 public:
  SendingStep(const ObservedConnection& connection, std::uint64_t call, const std::string& selector, std::size_t bytes,
              bool wantsReply) noexcept {
    VELTO_PROBE6(send, &connection, call, connection.name(), selector.c_str(), bytes, wantsReply);
    if (isTraced()) [[unlikely]]
      begin(connection, Kind::send, false, call, selector, bytes);
  }
};

// A call that has come runs.
class DeliveringStep final : public ObservedStep {
 public:
  DeliveringStep(const ObservedConnection& connection, std::uint64_t call, const std::string& selector,
                 std::size_t bytes, bool wantsReply) noexcept {
    VELTO_PROBE6(deliver, &connection, call, connection.name(), selector.c_str(), bytes, wantsReply);
    if (isTraced()) [[unlikely]]
      begin(connection, Kind::deliver, !wantsReply, call, selector, bytes);
  }
};

// A reply is handed over to be sent.
class ReplyingStep final : public ObservedStep {
 public:
  ReplyingStep(const ObservedConnection& connection, std::uint64_t call, const std::string& selector,
               std::size_t bytes) noexcept {
    VELTO_PROBE6(reply, &connection, call, connection.name(), selector.c_str(), bytes, 0);
    if (isTraced()) [[unlikely]]
      begin(connection, Kind::reply, false, call, selector, bytes);
  }
};

// The reply to a call of this end has come, and its block runs.
class AnsweringStep final : public ObservedStep {
 public:
  AnsweringStep(const ObservedConnection& connection, std::uint64_t call, const std::string& selector,
                std::size_t bytes) noexcept {
    VELTO_PROBE6(reply, &connection, call, connection.name(), selector.c_str(), bytes, 1);
    if (isTraced()) [[unlikely]]
      begin(connection, Kind::answer, true, call, selector, bytes);
  }
};

// While this lives, a socket that the thread connects is named after the connection, if that is traced.
class KeyForNextSocket {
 public:
  explicit KeyForNextSocket(const ObservedConnection& connection) noexcept;
  ~KeyForNextSocket();
  KeyForNextSocket(const KeyForNextSocket&) = delete;
  KeyForNextSocket& operator=(const KeyForNextSocket&) = delete;
};
// For a socket that is about to connect, or one end of a pair, which gets a key of its own. Nothing while no trace is
// written.
void nameSocketForTrace(int borrowedSocket) noexcept;
void namePairForTrace(int borrowedSocket) noexcept;

}  // namespace velto::system
