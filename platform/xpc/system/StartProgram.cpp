// A program is started by a library in somebody else's process, from any of its threads. So the child is made by the bare
// system call: it runs no handler that others have set for forks, and, asking for no signal at its end, is seen by no
// wait() but ours. It starts the program from a child of its own, which is left to the system; until then it makes system
// calls and touches nothing else, since only this thread has come along.

#include "platform/xpc/system/StartProgram.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/xpc/system/Descriptor.h"

namespace velto::system {
namespace {

constexpr int kSocketPlace = 3;
constexpr int kPipePlace = 4;
constexpr char kProcessVariable[] = "LISTEN_PID=";
constexpr std::size_t kNumberRoom = 24;

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// All that the child needs, made while there still are other threads and an allocator.
struct Prepared {
  explicit Prepared(const ProgramStart& start)
      : path(start.path), arguments(start.arguments), environment(start.environment), socket(start.borrowedSocket) {
    arguments.insert(arguments.begin(), path);
    environment.emplace_back("LISTEN_FDS=1");
    environment.emplace_back(kProcessVariable + std::string(kNumberRoom, '\0'));
    argumentPointers = pointersTo(arguments);
    environmentPointers = pointersTo(environment);
    number = environment.back().data() + sizeof(kProcessVariable) - 1;
  }

  std::string path;
  std::vector<std::string> arguments;
  std::vector<std::string> environment;
  int socket;
  std::vector<char*> argumentPointers;
  std::vector<char*> environmentPointers;
  char* number = nullptr;
};

// Two processes from here on, as after fork().
pid_t bareFork(int signalAtEnd) {
#ifdef __s390x__
  return static_cast<pid_t>(::syscall(SYS_clone, nullptr, signalAtEnd, nullptr, nullptr, nullptr));
#else
  return static_cast<pid_t>(::syscall(SYS_clone, signalAtEnd, nullptr, nullptr, nullptr, nullptr));
#endif
}

void writeNumber(char* place, long value) {
  std::array<char, kNumberRoom> digits{};
  std::size_t count = 0;
  do {
    digits[count++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value > 0);
  while (count > 0) *place++ = digits[--count];
}

[[noreturn]] void report(int pipe) {
  const int error = errno;
  [[maybe_unused]] const auto written = ::write(pipe, &error, sizeof error);
  ::_exit(127);
}

void setSignalsToTheirDefaults() {
  for (int signal = 1; signal < NSIG; ++signal) {
    if (signal != SIGKILL && signal != SIGSTOP) ::signal(signal, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Closes all descriptors from this one on, or sees to it that they are closed.
void closeFrom(int first) {
#ifdef SYS_close_range
  if (::syscall(SYS_close_range, first, ~0U, 0) == 0) return;
#endif
  const long limit = ::sysconf(_SC_OPEN_MAX);
  for (int descriptor = first; descriptor < limit; ++descriptor) ::close(descriptor);
}

[[noreturn]] void becomeProgram(const Prepared& prepared, int pipe) {
  // Out of the way of the places that they are to have.
  const int socket = ::fcntl(prepared.socket, F_DUPFD, kPipePlace + 1);
  pipe = ::fcntl(pipe, F_DUPFD, kPipePlace + 1);
  const int nothing = ::open("/dev/null", O_RDWR);
  if (socket < 0 || pipe < 0 || nothing < 0) report(pipe);
  for (int standard = 0; standard <= 2; ++standard) {
    if (::dup2(nothing, standard) < 0) report(pipe);
  }
  if (::dup2(socket, kSocketPlace) < 0 || ::dup3(pipe, kPipePlace, O_CLOEXEC) < 0) report(pipe);
  closeFrom(kPipePlace + 1);
  if (::chdir("/") != 0) report(kPipePlace);
  writeNumber(prepared.number, ::getpid());
  ::execve(prepared.path.c_str(), prepared.argumentPointers.data(), prepared.environmentPointers.data());
  report(kPipePlace);
}

[[noreturn]] void leaveBehind(const Prepared& prepared, int pipe) {
  setSignalsToTheirDefaults();
  ::setsid();
  const pid_t program = bareFork(0);
  if (program < 0) report(pipe);
  if (program == 0) becomeProgram(prepared, pipe);
  ::_exit(0);
}

// What was reported; 0 when the pipe ends without a word, with the start of the program.
int readReport(int pipe) {
  int error = 0;
  ssize_t length = 0;
  do {
    length = ::read(pipe, &error, sizeof error);
  } while (length < 0 && errno == EINTR);
  return length == sizeof error ? error : 0;
}

}  // namespace

int startDetached(const ProgramStart& start) {
  const Prepared prepared(start);
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) return errno;
  const Descriptor reading(ends[0]);
  Descriptor writing(ends[1]);
  // Nothing of the program's own handlers runs in the child before they are gone.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t child = bareFork(0);
  const int error = errno;
  if (child == 0) leaveBehind(prepared, writing.get());
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (child < 0) return error;
  writing.reset();
  int status = 0;
  while (::waitpid(child, &status, __WALL) < 0 && errno == EINTR) {
  }
  return readReport(reading.get());
}

}  // namespace velto::system
