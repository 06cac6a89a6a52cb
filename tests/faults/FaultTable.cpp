// One row for each answer that asks for another reaction. EINTR is taken up below the seam. Two answers are no faults:
// a receive or an accept that says EAGAIN has found nothing, and the kernel then announces what comes later.

#include "tests/faults/FaultTable.h"

#include <cerrno>
#include <set>

#include "platform/xpc/NSXPCError.h"

namespace velto::testing {

namespace {

// Calls on what lies in a directory that is open already. Of a runtime directory itself these errors say that it is the
// wrong one, and another is looked for.
bool inDirectory(int descriptor) {
  return descriptor >= 0;
}

}  // namespace

const std::vector<Fault>& allFaults() {
  static const std::vector<Fault>& table = *new std::vector<Fault>{
      {SystemCall::socketStream, {EMFILE, ENFILE, ENOMEM, ENOBUFS, EACCES}, Effect::reported, {NSXPCConnectionInvalid}},
      {SystemCall::bind,
       {EADDRINUSE, EACCES, EPERM, ENOSPC, EROFS, ENOMEM, EIO, ENAMETOOLONG, ELOOP, ENOENT, ENOTDIR},
       Effect::reported,
       {NSXPCConnectionInvalid}},
      {SystemCall::connect, {EAGAIN}, Effect::none, {}},
      {SystemCall::connect,
       {ECONNREFUSED, EACCES, EPERM, ENOENT, ELOOP, ENOMEM, ENOBUFS, EPROTOTYPE, EIO},
       Effect::reported,
       {NSXPCConnectionInvalid}},
      {SystemCall::listen, {EADDRINUSE, EINVAL, ENOBUFS}, Effect::reported, {NSXPCConnectionInvalid}},
      {SystemCall::accept, {ECONNABORTED, EMFILE, ENFILE, ENOMEM, ENOBUFS, EPERM, EPROTO}, Effect::none, {}},
      {SystemCall::peerUser,
       {ENOPROTOOPT, ENOMEM, EBADF},
       Effect::reported,
       {NSXPCConnectionInvalid, NSXPCConnectionInterrupted}},
      {SystemCall::peerProcess, {ENOPROTOOPT, ENOMEM, EBADF}, Effect::none, {}},
      {SystemCall::sendMessage, {EAGAIN, ENOBUFS, ENOMEM, ETOOMANYREFS}, Effect::none, {}},
      {SystemCall::sendMessage,
       {EPIPE, ECONNRESET, EPERM, EIO, EMSGSIZE, EBADF},
       Effect::maybeReported,
       {NSXPCConnectionInvalid, NSXPCConnectionInterrupted}},
      {SystemCall::receiveMessage,
       {ECONNRESET, ENOMEM, ENOBUFS, EIO, EBADF},
       Effect::maybeReported,
       {NSXPCConnectionInvalid, NSXPCConnectionInterrupted}},
      {SystemCall::openAt, {EMFILE, ENFILE, ENOMEM, EIO}, Effect::maybeReported, {NSXPCConnectionInvalid}},
      {SystemCall::openAt,
       {EACCES, ENOENT, ELOOP, ENOTDIR, ENAMETOOLONG},
       Effect::maybeReported,
       {NSXPCConnectionInvalid},
       inDirectory},
      {SystemCall::unlinkAt, {EPERM, EACCES, EROFS, EIO, EBUSY, ENOENT}, Effect::maybeReported, {}},
      {SystemCall::renameAt, {ENOSPC, EACCES, EPERM, EROFS, EIO, EISDIR}, Effect::reported, {NSXPCConnectionInvalid}},
      {SystemCall::changeMode, {EPERM, EROFS, EIO, ENOENT, ELOOP}, Effect::reported, {NSXPCConnectionInvalid}},
      {SystemCall::lockDirectory, {EWOULDBLOCK, ENOLCK}, Effect::maybeReported, {NSXPCConnectionInvalid}},
      {SystemCall::status,
       {EIO, ENOMEM, EOVERFLOW, EBADF},
       Effect::maybeReported,
       {NSXPCConnectionInvalid, NSXPCCallRefused, NSXPCReplyRefused}},
      {SystemCall::statusFlags, {EBADF, EPERM}, Effect::reported, {NSXPCCallRefused, NSXPCReplyRefused}},
      {SystemCall::pipe, {EMFILE, ENFILE, ENOMEM}, Effect::reported, {}},
      {SystemCall::duplicate, {EMFILE, ENOMEM}, Effect::reported, {}},
      {SystemCall::epollControl,
       {ENOMEM, ENOSPC, EPERM, EBADF},
       Effect::maybeReported,
       {NSXPCConnectionInvalid, NSXPCConnectionInterrupted}},
      {SystemCall::epollWait, {EBADF, EINVAL}, Effect::none, {}},
      {SystemCall::write, {EAGAIN, EIO, ENOMEM}, Effect::none, {}},
      {SystemCall::close, {EIO, ENOSPC, EDQUOT, EINTR}, Effect::none, {}},
  };
  return table;
}

std::vector<SystemCall> callsOfTheTable() {
  std::set<SystemCall> calls;
  for (const Fault& fault : allFaults()) calls.insert(fault.call);
  return {calls.begin(), calls.end()};
}

const std::vector<SystemCall>& callsApart() {
  static const std::vector<SystemCall>& calls = *new std::vector<SystemCall>{
      SystemCall::makeDirectory, SystemCall::shutdown,   SystemCall::epollCreate, SystemCall::eventCounter,
      SystemCall::timer,         SystemCall::setTimer,   SystemCall::read,        SystemCall::openPeerProcess,
      SystemCall::openProcess,   SystemCall::isReadable, SystemCall::epollLook,   SystemCall::awaitReadable};
  return calls;
}

}  // namespace velto::testing
