#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "fuzz/support/FakeKernel.h"
#include "fuzz/support/Input.h"
#include "fuzz/support/PeerStream.h"
#include "fuzz/support/Subject.h"
#include "platform/xpc/NSXPCConnection.h"

namespace velto::fuzzing {

// One connection of the library with an exported object, over the fake kernel; its other end and its user are played by
// the fuzzer. At its end it is held to what a connection promises, whatever came.
class Session {
 public:
  enum class Role { accepts, connects };

  static void prepare();
  // A user that refuses turns the accepted connection away; one that is slow resumes only when told to.
  Session(Role role, bool userRefuses, bool userIsSlow);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The peer: sends bytes, in pieces of the size that was set, with objects attached to the first of them.
  void setPieces(std::size_t bytes) { pieceBytes_ = bytes; }
  void send(Bytes bytes, std::vector<SharedObject> objects = {}, bool truncated = false);
  void sayHello();
  void hangUp(int error);
  void giveRoom(std::size_t bytes);
  void failNextSend(int error);

  // The user.
  void resume();
  void greet();
  void callKeep(std::size_t bytes);
  void tell(std::size_t bytes);
  void introduce();
  void sendWhatCannotTravel();
  void answerKept(unsigned times);
  void dropKept();
  void invalidate();
  void letGo();

  // Ends it all and checks what must hold.
  void finish();

 private:
  friend class Acceptor;
  struct Events {
    unsigned interruptions = 0;
    unsigned invalidations = 0;
  };
  struct Outgoing {
    bool wantsReply = false;
    unsigned replies = 0;
    unsigned errors = 0;
  };

  bool accept(const std::shared_ptr<NSXPCConnection>& connection);
  void configure();
  std::shared_ptr<NSXPCProxy<Subject>> proxyFor(const std::shared_ptr<Outgoing>& call);
  template <auto Method, class Answer, class Argument>
  void call(const Argument& argument);
  template <auto Method, class Argument>
  void callOneWay(const Argument& argument);
  void probe();
  void checkCalls() const;

  const Role role_;
  const bool userRefuses_;
  const bool userIsSlow_;
  const std::shared_ptr<Events> events_ = std::make_shared<Events>();
  std::shared_ptr<ExportedSubject> exported_ = std::make_shared<ExportedSubject>();
  const std::weak_ptr<ExportedSubject> exportedLife_ = exported_;
  std::shared_ptr<NSXPCConnection> connection_;
  bool isConfigured_ = false;
  bool isResumed_ = false;
  bool isInvalidated_ = false;
  SharedObject stream_;
  std::size_t pieceBytes_ = 0;
  PeerWords words_;
  // What had been sent when the peer's hello was heard; past everything while frames may wait for room.
  std::size_t heardHelloAt_ = SIZE_MAX;
  bool roomWasShort_ = false;
  std::vector<std::shared_ptr<Outgoing>> calls_;
};

}  // namespace velto::fuzzing
