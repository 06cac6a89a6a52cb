#pragma once

#include <cstddef>
#include <cstdint>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>

namespace velto::system {

struct ProgramStart;

// The one seam to the operating system: every system call of the connection layer goes through here, so that tests can
// script what the kernel answers. Each does what the call of its name does, and reports like it: -1 and errno. Calls
// that a signal may interrupt are taken up again here. Every descriptor made is close-on-exec.
//
// Thread-safe. Descriptors in parameters are borrowed, but for close().
class SystemCalls {
 public:
  virtual ~SystemCalls() = default;

  virtual int socketStream();
  virtual int socketPair(int (&ends)[2]);
  virtual int bind(int socket, const char* path);
  virtual int connect(int socket, const char* path);
  virtual int listen(int socket, int backlog);
  virtual int accept(int socket);
  // 1 for a local stream socket that listens, 0 for any other socket.
  virtual int isListening(int socket);
  // Both directions.
  virtual int shutdown(int socket);
  virtual int peerUser(int socket, uid_t& user);
  // 0 for a process whose number cannot be told here: it is in another namespace.
  virtual int peerProcess(int socket, pid_t& process);
  // A descriptor of the process at the other end, and of no other that may have its number by now. ENOPROTOOPT where
  // the kernel does not offer it.
  virtual int openPeerProcess(int socket);
  // A descriptor of the process that has the number now: readable once the process is dead. ESRCH when none has it.
  virtual int openProcess(pid_t process);
  // 1 or 0, at once: whether there is something to be read.
  virtual int isReadable(int descriptor);
  // Sleeps until one of the two has something to be read, or has ended; or for so long: 0 then, and after a signal.
  virtual int awaitReadable(int descriptor, int other, std::uint64_t nanoseconds);
  // How many bytes the kernel keeps for the other end to read; as many as it allows, if those are fewer.
  virtual int setSendBuffer(int socket, int bytes);
  virtual ssize_t sendMessage(int socket, const msghdr& message);
  virtual ssize_t receiveMessage(int socket, msghdr& message);

  // A directory of AT_FDCWD is the current one, as for the kernel.
  virtual int openAt(int directory, const char* name, int flags);
  virtual int makeDirectory(const char* path, mode_t mode);
  virtual int unlinkAt(int directory, const char* name);
  virtual int renameAt(int directory, const char* from, const char* to);
  virtual int changeMode(const char* path, mode_t mode);
  // EWOULDBLOCK when another process has it locked. The lock ends with the descriptor.
  virtual int lockDirectory(int directory);
  virtual int status(int descriptor, struct stat& result);
  virtual int statusFlags(int descriptor);

  virtual int pipe(int (&ends)[2]);
  virtual int duplicate(int descriptor);
  // Makes one that others have made so.
  virtual int closeOnExec(int descriptor);
  virtual int epollCreate();
  virtual int epollControl(int epoll, int operation, int descriptor, epoll_event& event);
  virtual int epollWait(int epoll, epoll_event* events, int capacity);
  // The same, at once.
  virtual int epollLook(int epoll, epoll_event* events, int capacity);
  virtual int eventCounter();
  virtual int timer();
  // One expiry `nanoseconds` from now; 0 disarms.
  virtual int setTimer(int timer, std::uint64_t nanoseconds);
  virtual ssize_t read(int descriptor, void* bytes, std::size_t length);
  virtual ssize_t write(int descriptor, const void* bytes, std::size_t length);
  // Memory without a name that can be sealed, of no bytes yet.
  virtual int makeMemory();
  virtual int addSeals(int memory, int seals);
  // -1 for what has none.
  virtual int seals(int descriptor);
  virtual int close(int descriptor);
  // A thread that nobody waits for, with all signals blocked. 0, or what is wrong.
  virtual int startThread(void* (*run)(void*), void* argument);
  // See startDetached(). 0, or what is wrong.
  virtual int startProgram(const ProgramStart& start);
  virtual void yield();
  // Gives memory that is free, but still the process's, back to the system, if the allocator can do so.
  virtual void giveMemoryBack();
  // How many descriptors this process may have open.
  virtual std::size_t descriptorLimit();
  // How many bytes a file that it writes may have: one byte more, and a signal ends it.
  virtual std::uint64_t fileSizeLimit();
};

// What the process uses: the kernel, unless a test has put its own in place.
SystemCalls& systemCalls() noexcept;
// For tests. nullptr brings the kernel back. Returns what was in place.
SystemCalls* replaceSystemCalls(SystemCalls* calls) noexcept;

}  // namespace velto::system
