// The kernel that the fuzzers play. Events are edge-triggered as the real ones are: adding or changing a watch tells
// the state at once, and every change tells it anew.

#include "fuzz/support/FakeKernel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "fuzz/support/Require.h"

namespace velto::fuzzing {
namespace {

// Far from every real descriptor, which a call that went past this kernel would hit.
constexpr int kFirstDescriptor = 1'000'000;

// More than the kernel ever gives out.
constexpr pid_t kFirstProcess = 1 << 22;

std::uint64_t nextNumber() {
  static std::uint64_t last = 0;
  return ++last;
}

int failWith(int error) {
  errno = error;
  return -1;
}

// Takes a scripted error: it holds for one call.
bool fails(int& error) {
  if (error == 0) return false;
  errno = std::exchange(error, 0);
  return true;
}

}  // namespace

KernelObject::KernelObject(ObjectKind itsKind) : kind(itsKind), number(nextNumber()) {}

FakeKernel& FakeKernel::shared() {
  static FakeKernel& made = *[] {
    auto* kernel = new FakeKernel;
    system::replaceSystemCalls(kernel);
    return kernel;
  }();
  return made;
}

int FakeKernel::open(const SharedObject& object) {
  ++open_;
  if (!free_.empty()) {
    const int descriptor = free_.back();
    free_.pop_back();
    slots_[static_cast<std::size_t>(descriptor - kFirstDescriptor)] = {object, 0, 0};
    return descriptor;
  }
  slots_.push_back({object, 0, 0});
  return kFirstDescriptor + static_cast<int>(slots_.size()) - 1;
}

FakeKernel::Slot& FakeKernel::slotOf(int descriptor) {
  const auto index = static_cast<std::size_t>(descriptor - kFirstDescriptor);
  if (descriptor < kFirstDescriptor || index >= slots_.size() || !slots_[index].object) {
    reportFinding("a system call on descriptor " + std::to_string(descriptor) + ", which is not open");
  }
  return slots_[index];
}

SharedObject FakeKernel::objectOf(int descriptor) const {
  return const_cast<FakeKernel*>(this)->slotOf(descriptor).object;
}

int FakeKernel::close(int descriptor) {
  Slot& slot = slotOf(descriptor);
  // A watch ends with the last copy of what is watched, and with nothing else.
  if (slot.watcher != 0) {
    const bool isLast = std::ranges::count(slots_, slot.object, &Slot::object) == 1;
    require(isLast, "a descriptor that has copies is watched no more when it is closed");
    forgetEvents(slot.watcher);
  }
  if (slot.object->kind == ObjectKind::stream) slot.object->isClosed = true;
  slot = {};
  free_.push_back(descriptor);
  --open_;
  return 0;
}

void FakeKernel::tell(const SharedObject& object, std::uint32_t events) {
  for (const Slot& slot : slots_) {
    if (slot.object != object || slot.watcher == 0) continue;
    const std::uint32_t told = events & (slot.watched | EPOLLHUP | EPOLLERR);
    if (told == 0) continue;
    epoll_event event{};
    event.events = told;
    event.data.u64 = slot.watcher;
    events_.push_back(event);
  }
}

void FakeKernel::tellState(const Slot& slot) {
  const KernelObject& object = *slot.object;
  std::uint32_t events = 0;
  if (!object.incoming.empty() || object.receiveError != 0) events |= EPOLLIN;
  if (object.hasEnded) events |= EPOLLIN | EPOLLRDHUP | EPOLLHUP;
  if (object.kind == ObjectKind::stream && object.room > 0) events |= EPOLLOUT;
  if (object.hasHungUp) events |= EPOLLHUP;
  if (slot.object == listening_ && !backlog_.empty()) events |= EPOLLIN;
  tell(slot.object, events);
}

void FakeKernel::forgetEvents(std::uint64_t watcher) {
  std::erase_if(events_, [watcher](const epoll_event& event) { return event.data.u64 == watcher; });
}

void FakeKernel::arrives(const SharedObject& stream, Segment segment) {
  if (stream->isClosed || stream->hasEnded) return;
  stream->incoming.push_back(std::move(segment));
  tell(stream, EPOLLIN);
}

void FakeKernel::ends(const SharedObject& stream, int error) {
  if (stream->isClosed) return;
  stream->hasEnded = true;
  stream->receiveError = error;
  tell(stream, EPOLLIN | EPOLLRDHUP | EPOLLHUP);
}

void FakeKernel::roomArrives(const SharedObject& stream, std::size_t room) {
  stream->room = room;
  if (room > 0) tell(stream, EPOLLOUT);
}

void FakeKernel::hangsUp(const SharedObject& pipe) {
  pipe->hasHungUp = true;
  tell(pipe, EPOLLHUP);
}

SharedObject FakeKernel::makeProcess(pid_t number) {
  auto process = std::make_shared<KernelObject>(ObjectKind::process);
  process->processNumber = kFirstProcess + number;
  return process;
}

void FakeKernel::dies(const SharedObject& process) {
  process->hasEnded = true;
  tell(process, EPOLLIN);
}

SharedObject FakeKernel::connects(const SharedObject& process) {
  auto stream = std::make_shared<KernelObject>(ObjectKind::stream);
  stream->process = process;
  backlog_.push_back(stream);
  tell(listening_, EPOLLIN);
  return stream;
}

int FakeKernel::epollControl(int, int operation, int descriptor, epoll_event& event) {
  Slot& slot = slotOf(descriptor);
  if (operation == EPOLL_CTL_DEL) {
    forgetEvents(slot.watcher);
    slot.watcher = 0;
    return 0;
  }
  // One thread needs no gate before its events.
  if (slot.object->kind == ObjectKind::events) return 0;
  if (fails(watchError)) return -1;
  slot.watcher = event.data.u64;
  slot.watched = event.events;
  tellState(slot);
  return 0;
}

int FakeKernel::epollWait(int, epoll_event* events, int) {
  if (events_.empty()) return 0;
  events[0] = events_.front();
  events_.pop_front();
  return 1;
}

int FakeKernel::epollLook(int epoll, epoll_event* events, int capacity) {
  return epollWait(epoll, events, capacity);
}

ssize_t FakeKernel::receiveMessage(int socket, msghdr& message) {
  KernelObject& stream = *slotOf(socket).object;
  message.msg_flags = 0;
  if (stream.incoming.empty()) {
    message.msg_controllen = 0;
    if (fails(stream.receiveError)) return -1;
    return stream.hasEnded ? 0 : failWith(EAGAIN);
  }
  Segment& segment = stream.incoming.front();
  const std::size_t count = std::min(segment.bytes.size(), message.msg_iov[0].iov_len);
  std::copy_n(segment.bytes.begin(), count, static_cast<std::uint8_t*>(message.msg_iov[0].iov_base));
  segment.bytes.erase(segment.bytes.begin(), segment.bytes.begin() + static_cast<std::ptrdiff_t>(count));
  if (segment.truncated) message.msg_flags |= MSG_CTRUNC;
  std::vector<int> descriptors;
  for (const SharedObject& object : std::exchange(segment.objects, {})) descriptors.push_back(open(object));
  const std::size_t controlBytes = descriptors.size() * sizeof(int);
  if (descriptors.empty()) {
    message.msg_controllen = 0;
  } else {
    require(CMSG_SPACE(controlBytes) <= message.msg_controllen, "there is room for all descriptors of one message");
    message.msg_controllen = CMSG_SPACE(controlBytes);
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(controlBytes);
    std::memcpy(CMSG_DATA(header), descriptors.data(), controlBytes);
  }
  if (segment.bytes.empty()) stream.incoming.pop_front();
  return static_cast<ssize_t>(count);
}

ssize_t FakeKernel::sendMessage(int socket, const msghdr& message) {
  KernelObject& stream = *slotOf(socket).object;
  if (fails(stream.sendError)) return -1;
  if (stream.hasEnded) return failWith(EPIPE);
  if (stream.room == 0) return failWith(EAGAIN);
  std::size_t sent = 0;
  for (std::size_t part = 0; part < message.msg_iovlen && stream.room > 0; ++part) {
    const std::size_t count = std::min(message.msg_iov[part].iov_len, stream.room);
    const auto* bytes = static_cast<const std::uint8_t*>(message.msg_iov[part].iov_base);
    stream.sent.insert(stream.sent.end(), bytes, bytes + count);
    if (stream.room != SIZE_MAX) stream.room -= count;
    sent += count;
  }
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
       header = CMSG_NXTHDR(const_cast<msghdr*>(&message), header)) {
    const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t index = 0; index < count; ++index) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(header) + index * sizeof(int), sizeof(int));
      stream.sentObjects.push_back(slotOf(descriptor).object);
    }
  }
  return static_cast<ssize_t>(sent);
}

int FakeKernel::shutdown(int socket) {
  const SharedObject stream = slotOf(socket).object;
  stream->hasEnded = true;
  tell(stream, EPOLLIN | EPOLLRDHUP | EPOLLHUP);
  return 0;
}

int FakeKernel::accept(int) {
  if (backlog_.empty()) return failWith(EAGAIN);
  const SharedObject stream = backlog_.front();
  backlog_.pop_front();
  return open(stream);
}

int FakeKernel::connect(int socket, const char*) {
  if (fails(connectError)) return -1;
  connected = slotOf(socket).object;
  return 0;
}

int FakeKernel::listen(int socket, int) {
  listening_ = slotOf(socket).object;
  return 0;
}

int FakeKernel::status(int descriptor, struct stat& result) {
  const KernelObject& object = *slotOf(descriptor).object;
  result = {};
  result.st_uid = ::geteuid();
  result.st_ino = object.number;
  switch (object.kind) {
    case ObjectKind::stream:
    case ObjectKind::listening:
    case ObjectKind::handle:
      result.st_mode = S_IFSOCK | S_IRWXU;
      break;
    case ObjectKind::readEnd:
    case ObjectKind::writeEnd:
      result.st_mode = S_IFIFO | S_IRWXU;
      break;
    case ObjectKind::file:
    case ObjectKind::process:
    case ObjectKind::events:
      result.st_mode = S_IFREG | S_IRWXU;
      break;
  }
  return 0;
}

int FakeKernel::statusFlags(int descriptor) {
  switch (slotOf(descriptor).object->kind) {
    case ObjectKind::handle:
      return O_PATH;
    case ObjectKind::readEnd:
      return O_RDONLY;
    case ObjectKind::writeEnd:
      return O_WRONLY;
    default:
      return O_RDWR;
  }
}

int FakeKernel::duplicate(int descriptor) {
  if (fails(duplicateError)) return -1;
  const SharedObject object = slotOf(descriptor).object;
  return open(object);
}

int FakeKernel::pipe(int (&ends)[2]) {
  ends[0] = open(std::make_shared<KernelObject>(ObjectKind::readEnd));
  ends[1] = open(std::make_shared<KernelObject>(ObjectKind::writeEnd));
  return 0;
}

int FakeKernel::openAt(int, const char*, int flags) {
  return (flags & O_PATH) != 0 ? open(std::make_shared<KernelObject>(ObjectKind::handle)) : openFile();
}

int FakeKernel::peerUser(int, uid_t& user) {
  user = ::geteuid();
  return 0;
}

const SharedObject& FakeKernel::processOf(int socket) {
  static const SharedObject& anybody = *new SharedObject(makeProcess(0));
  const SharedObject& process = slotOf(socket).object->process;
  return process ? process : anybody;
}

int FakeKernel::peerProcess(int socket, pid_t& process) {
  process = processOf(socket)->processNumber;
  return 0;
}

int FakeKernel::openPeerProcess(int socket) {
  return fails(openProcessError) ? -1 : open(processOf(socket));
}

// Never asked: the other end's can always be had, or nothing can.
int FakeKernel::openProcess(pid_t) {
  return failWith(ESRCH);
}

int FakeKernel::isReadable(int descriptor) {
  const KernelObject& object = *slotOf(descriptor).object;
  return object.hasEnded || !object.incoming.empty() ? 1 : 0;
}

// The only thread there is would wait for itself.
int FakeKernel::awaitReadable(int, int, std::uint64_t) {
  return failWith(ENOSYS);
}

// What could be mapped is nowhere here: large data goes no other way than in frames, and what says that it comes
// otherwise does not hold.
int FakeKernel::makeMemory() {
  return failWith(ENOMEM);
}
int FakeKernel::addSeals(int, int) {
  return failWith(EINVAL);
}
int FakeKernel::seals(int descriptor) {
  slotOf(descriptor);
  return failWith(EINVAL);
}
int FakeKernel::setSendBuffer(int, int) {
  return 0;
}

int FakeKernel::socketStream() {
  return open(std::make_shared<KernelObject>(ObjectKind::stream));
}
// What a pair says to itself is nobody's input: two streams whose other ends are in the fuzzer's hands, as any.
int FakeKernel::socketPair(int (&ends)[2]) {
  for (int& end : ends) end = socketStream();
  return 0;
}
int FakeKernel::epollCreate() {
  return open(std::make_shared<KernelObject>(ObjectKind::events));
}
int FakeKernel::eventCounter() {
  return openFile();
}
int FakeKernel::timer() {
  return openFile();
}
int FakeKernel::bind(int, const char*) {
  return 0;
}
int FakeKernel::makeDirectory(const char*, mode_t) {
  return 0;
}
int FakeKernel::unlinkAt(int, const char*) {
  return 0;
}
int FakeKernel::renameAt(int, const char*, const char*) {
  return 0;
}
int FakeKernel::changeMode(const char*, mode_t) {
  return 0;
}
int FakeKernel::lockDirectory(int) {
  return 0;
}
int FakeKernel::setTimer(int, std::uint64_t) {
  return 0;
}
ssize_t FakeKernel::read(int, void*, std::size_t) {
  return failWith(EAGAIN);
}
ssize_t FakeKernel::write(int, const void*, std::size_t length) {
  return static_cast<ssize_t>(length);
}

}  // namespace velto::fuzzing
