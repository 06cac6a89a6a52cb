#include "platform/xpc/system/TraceFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/logging/LogTimer.h"
#include "platform/logging/VeltoLogging.h"

namespace velto::system {

namespace {

constexpr const char* kTraceVariable = "VELTO_TRACE";
constexpr std::chrono::milliseconds kOldest{500};
// A path may not be longer for the kernel, its end included.
constexpr std::size_t kLongestPath = 4096;

// The process has begun to end.
constinit std::atomic<bool> isEnding{false};

// The child of a fork has no file before its own first event.
constexpr unsigned kNeverMade = ~0U;
constinit std::atomic<unsigned> madeIn{kNeverMade};

// Nil for a program that has more rights than whoever started it.
const char* fileNamed() noexcept {
  return ::secure_getenv(kTraceVariable);
}

void flushTrace() noexcept {
  if (madeIn.load(std::memory_order_relaxed) == forkGeneration()) TraceFile::shared().flush();
}

void flushAtEnd() noexcept {
  isEnding.store(true, std::memory_order_relaxed);
  flushTrace();
}

// "%p" is the number of the process, "%%" a percent sign. False when there is no room.
bool expand(const char* pattern, std::array<char, kLongestPath>& path) noexcept {
  std::size_t used = 0;
  for (const char* next = pattern; *next != '\0'; ++next) {
    std::array<char, 16> piece{*next, '\0'};
    if (next[0] == '%' && next[1] == 'p') std::snprintf(piece.data(), piece.size(), "%d", ::getpid());
    if (next[0] == '%' && (next[1] == 'p' || next[1] == '%')) ++next;
    const std::size_t length = std::strlen(piece.data());
    if (used + length >= path.size()) return false;
    std::memcpy(&path[used], piece.data(), length);
    used += length;
  }
  path[used] = '\0';
  return true;
}

}  // namespace

constinit std::atomic<Tracing> tracing{Tracing::unknown};

bool findOutWhetherTraced() noexcept {
  const char* const name = fileNamed();
  Tracing found = name != nullptr && *name != '\0' ? Tracing::on : Tracing::off;
  Tracing before = Tracing::unknown;
  if (!tracing.compare_exchange_strong(before, found)) return before == Tracing::on;
  if (found != Tracing::on) return false;
  static_cast<void>(std::atexit(flushAtEnd));
  static_cast<void>(std::at_quick_exit(flushAtEnd));
  return true;
}

TraceFile::TraceFile() noexcept {
  MutexLock lock(mutex_);
  if (!open()) failure_ = errno;
  madeIn.store(forkGeneration(), std::memory_order_relaxed);
}

bool TraceFile::open() noexcept {
  const char* const pattern = fileNamed();
  std::array<char, kLongestPath> path;
  if (pattern == nullptr || !expand(pattern, path)) {
    errno = pattern == nullptr ? ENOENT : ENAMETOOLONG;
    return false;
  }
  // A pipe without a reader is an error, not a wait.
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  file_ = Descriptor(::open(path.data(), kFlags, S_IRUSR | S_IWUSR));
  if (!file_) return false;
  const int error = begin();
  if (error != 0) file_.reset();
  errno = error;
  return error == 0;
}

// Of several processes that come to an empty file at once, one begins the array.
int TraceFile::begin() noexcept {
  struct stat status {};
  if (::fstat(file_.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return EINVAL;
  while (::flock(file_.get(), LOCK_EX) != 0) {
    if (errno != EINTR) return errno;
  }
  int error = ::fstat(file_.get(), &status) != 0 ? errno : 0;
  if (error == 0 && status.st_size == 0) error = write("[\n");
  ::flock(file_.get(), LOCK_UN);
  return error;
}

int TraceFile::write(std::string_view bytes) noexcept {
  rlimit limit{};
  struct stat status {};
  // A file that may not grow any more would end the process with a signal.
  if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
      (::fstat(file_.get(), &status) != 0 || static_cast<rlim_t>(status.st_size) + bytes.size() > limit.rlim_cur)) {
    return EFBIG;
  }
  // The kernel writes to a regular file whole, behind what is there, unless there is no room for it.
  while (!bytes.empty()) {
    const ssize_t written = ::write(file_.get(), bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) return errno;
    if (written > 0) bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

void TraceFile::writeBuffer() noexcept {
  const std::string_view bytes(buffer_.data(), std::exchange(used_, 0));
  if (bytes.empty() || !file_) return;
  failure_ = write(bytes);
  if (failure_ != 0) file_.reset();
}

void TraceFile::add(std::string_view events) noexcept {
  bool asksTimer = false;
  bool failed = false;
  {
    MutexLock lock(mutex_);
    if (used_ + events.size() > buffer_.size()) writeBuffer();
    const std::size_t count = std::min(events.size(), buffer_.size() - used_);
    std::memcpy(&buffer_[used_], events.data(), count);
    used_ += count;
    if (isEnding.load(std::memory_order_relaxed)) writeBuffer();
    asksTimer = used_ > 0 && !std::exchange(willFlush_, true);
    failed = failure_ != 0;
  }
  if (failed) return tellFailure();
  if (!asksTimer) return;
  const auto flushOld = [] { flushTrace(); };
  if (!askLogTimer(kOldest, flushOld)) flush();
}

void TraceFile::flush() noexcept {
  bool failed = false;
  {
    MutexLock lock(mutex_);
    willFlush_ = false;
    writeBuffer();
    failed = failure_ != 0;
  }
  if (failed) tellFailure();
}

void TraceFile::tellFailure() noexcept {
  int error = 0;
  {
    MutexLock lock(mutex_);
    error = std::exchange(failure_, 0);
  }
  if (error == 0) return;
  tracing.store(Tracing::off, std::memory_order_relaxed);
  VKTLoggingLog(VKTLogGetAnchor(), VKTLogLevelFailure, "The trace \"%s\" cannot be written, and ends: %s", fileNamed(),
                std::strerror(error));
}

}  // namespace velto::system
