#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <vector>

#include "platform/xpc/system/SystemCalls.h"

namespace velto::fuzzing {

// What a descriptor stands for.
enum class ObjectKind : std::uint8_t { stream, listening, handle, readEnd, writeEnd, file, process, events };

struct KernelObject;
using SharedObject = std::shared_ptr<KernelObject>;

// Bytes as one receive gets them, and the objects whose descriptors come along.
struct Segment {
  std::vector<std::uint8_t> bytes;
  std::vector<SharedObject> objects;
  bool truncated = false;
};

// One thing of the fake kernel. A stream has its other end in the fuzzer's hands.
struct KernelObject {
  explicit KernelObject(ObjectKind itsKind);

  const ObjectKind kind;
  const std::uint64_t number;
  bool hasHungUp = false;  // of a pipe

  // Of a stream: what is still to be received, and how it ends then.
  std::list<Segment> incoming;
  bool hasEnded = false;
  int receiveError = 0;
  // What was sent, and how much more may be; an error fails the next send alone.
  std::vector<std::uint8_t> sent;
  std::vector<SharedObject> sentObjects;
  std::size_t room = SIZE_MAX;
  int sendError = 0;
  // The library has closed its end.
  bool isClosed = false;
  // The process at its other end, and the number that this one has.
  SharedObject process;
  pid_t processNumber = 0;
};

// Stands in the kernel's place: sockets, pipes and epoll that exist only here. Deterministic, makes no system call, and
// counts every descriptor that it has given out. What no correct program does (a call on a descriptor that is not open,
// a second close) is a finding.
//
// Of one thread.
class FakeKernel final : public system::SystemCalls {
 public:
  static FakeKernel& shared();

  // A descriptor of the library's for an object.
  int open(const SharedObject& object);
  std::size_t openDescriptors() const noexcept { return open_; }
  SharedObject objectOf(int descriptor) const;

  // What happens outside of the process.
  void arrives(const SharedObject& stream, Segment segment);
  void ends(const SharedObject& stream, int error = 0);
  void roomArrives(const SharedObject& stream, std::size_t room);
  void hangsUp(const SharedObject& pipe);
  // Somebody connects to the listener behind a handle; the stream that it gets. Nobody in particular is one process
  // that never dies.
  SharedObject connects(const SharedObject& process = nullptr);
  // A process with a number that no real one can have.
  static SharedObject makeProcess(pid_t number);
  void dies(const SharedObject& process);

  // Events that wait to be told.
  bool hasEvents() const noexcept { return !events_.empty(); }
  // How the next calls of each kind fail; 0 not at all.
  int duplicateError = 0;
  int watchError = 0;
  int connectError = 0;
  int openProcessError = 0;
  // The stream of the last connect().
  SharedObject connected;

  int socketStream() override;
  int socketPair(int (&ends)[2]) override;
  int bind(int socket, const char* path) override;
  int connect(int socket, const char* path) override;
  int listen(int socket, int backlog) override;
  int accept(int socket) override;
  int shutdown(int socket) override;
  int peerUser(int socket, uid_t& user) override;
  int peerProcess(int socket, pid_t& process) override;
  int openPeerProcess(int socket) override;
  int openProcess(pid_t process) override;
  int isReadable(int descriptor) override;
  int awaitReadable(int descriptor, int other, std::uint64_t nanoseconds) override;
  int setSendBuffer(int socket, int bytes) override;
  ssize_t sendMessage(int socket, const msghdr& message) override;
  ssize_t receiveMessage(int socket, msghdr& message) override;
  int openAt(int directory, const char* name, int flags) override;
  int makeDirectory(const char* path, mode_t mode) override;
  int unlinkAt(int directory, const char* name) override;
  int renameAt(int directory, const char* from, const char* to) override;
  int changeMode(const char* path, mode_t mode) override;
  int lockDirectory(int directory) override;
  int status(int descriptor, struct stat& result) override;
  int statusFlags(int descriptor) override;
  int pipe(int (&ends)[2]) override;
  int duplicate(int descriptor) override;
  int epollCreate() override;
  int epollControl(int epoll, int operation, int descriptor, epoll_event& event) override;
  int epollWait(int epoll, epoll_event* events, int capacity) override;
  int epollLook(int epoll, epoll_event* events, int capacity) override;
  int eventCounter() override;
  int timer() override;
  int setTimer(int timer, std::uint64_t nanoseconds) override;
  ssize_t read(int descriptor, void* bytes, std::size_t length) override;
  ssize_t write(int descriptor, const void* bytes, std::size_t length) override;
  int makeMemory() override;
  int addSeals(int memory, int seals) override;
  int seals(int descriptor) override;
  int close(int descriptor) override;
  void yield() override {}

 private:
  struct Slot {
    SharedObject object;
    std::uint64_t watcher = 0;
    std::uint32_t watched = 0;
  };

  FakeKernel() = default;
  Slot& slotOf(int descriptor);
  const SharedObject& processOf(int socket);
  int openFile() { return open(std::make_shared<KernelObject>(ObjectKind::file)); }
  void tell(const SharedObject& object, std::uint32_t events);
  void tellState(const Slot& slot);
  void forgetEvents(std::uint64_t watcher);

  std::vector<Slot> slots_;
  std::vector<int> free_;
  std::size_t open_ = 0;
  std::deque<epoll_event> events_;
  SharedObject listening_;
  std::deque<SharedObject> backlog_;
};

}  // namespace velto::fuzzing
