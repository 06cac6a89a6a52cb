// Steps as events of a trace, in the form that trace viewers of browsers read: https://ui.perfetto.dev opens it, and so
// does chrome://tracing. A step that lasts is a slice of its thread; what threads the steps of a call is a flow.

#include "platform/xpc/system/Observation.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <string_view>

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/foundation/RandomBytes.h"

namespace velto::system {

namespace {

constexpr std::uint64_t kNanosecondsInASecond = 1'000'000'000;
constexpr std::uint64_t kNanosecondsInAMicrosecond = 1000;
// Of a slice that shows a moment.
constexpr std::uint64_t kMoment = kNanosecondsInAMicrosecond;
// Longer texts are cut.
constexpr std::size_t kShownText = 256;

// Of a socket: a zero, this, and the key in sixteen digits. Such a name has no file, and lives as long as the socket.
constexpr std::string_view kSocketName = "velto-trace-";
constexpr std::size_t kKeyDigits = 16;

constinit thread_local std::uint64_t nextKey = 0;

std::uint64_t nanosecondsNow() noexcept {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * kNanosecondsInASecond + static_cast<std::uint64_t>(now.tv_nsec);
}

std::uint64_t randomKey() noexcept {
  std::uint64_t key = 0;
  fillWithRandomBytes(&key, sizeof(key));
  return key;
}

void bindToKey(int socket, std::uint64_t key) noexcept {
  sockaddr_un address{AF_UNIX, {}};
  const int length = std::snprintf(&address.sun_path[1], sizeof(address.sun_path) - 1, "%s%016llx", kSocketName.data(),
                                   static_cast<unsigned long long>(key));
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<std::size_t>(length));
  static_cast<void>(::bind(socket, reinterpret_cast<const sockaddr*>(&address), size));
}

// 0 for a name of any other kind. What a peer has named itself is read like everything else of it: as hostile.
std::uint64_t keyIn(const sockaddr_un& address, socklen_t size) noexcept {
  constexpr std::size_t kSize = offsetof(sockaddr_un, sun_path) + 1 + kSocketName.size() + kKeyDigits;
  if (size != kSize || address.sun_path[0] != '\0') return 0;
  const std::string_view name(&address.sun_path[1], kSocketName.size() + kKeyDigits);
  if (!name.starts_with(kSocketName)) return 0;
  std::uint64_t key = 0;
  for (const char digit : name.substr(kSocketName.size())) {
    const bool isLetter = digit >= 'a' && digit <= 'f';
    if (!isLetter && (digit < '0' || digit > '9')) return 0;
    key = key << 4 | static_cast<std::uint64_t>(isLetter ? digit - 'a' + 10 : digit - '0');
  }
  return key;
}

std::uint64_t keyOf(int socket) noexcept {
  sockaddr_un address{};
  socklen_t size = sizeof(address);
  std::uint64_t key = 0;
  if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0) key = keyIn(address, size);
  size = sizeof(address);
  if (key == 0 && ::getpeername(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0) key = keyIn(address, size);
  return key;
}

// Text of events, in room that is enough for the most that is ever put together.
class EventText {
 public:
  template <class... Arguments>
  void print(const char* format, Arguments... arguments) noexcept {
    const int length = std::snprintf(&text_[used_], text_.size() - used_, format, arguments...);
    used_ = std::min(text_.size() - 1, used_ + static_cast<std::size_t>(std::max(length, 0)));
  }
  // As JSON; without its last bytes when it is long, but never without half of a character.
  void quote(std::string_view text) noexcept {
    const std::string_view shown = text.substr(0, kShownText);
    std::size_t length = shown.size();
    if (shown.size() < text.size()) {
      while (length > 0 && isContinuation(text[length])) --length;
    }
    put('"');
    for (const char each : shown.substr(0, length)) {
      if (each == '"' || each == '\\') put('\\');
      static_cast<unsigned char>(each) < ' ' ? print("\\u%04x", static_cast<unsigned>(each)) : put(each);
    }
    put('"');
  }
  void put(std::string_view text) noexcept {
    const std::size_t length = std::min(text.size(), text_.size() - 1 - used_);
    std::memcpy(&text_[used_], text.data(), length);
    used_ += length;
  }
  std::string_view view() const noexcept { return {text_.data(), used_}; }

 private:
  static bool isContinuation(char byte) noexcept { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }
  void put(char byte) noexcept {
    if (used_ + 1 < text_.size()) text_[used_++] = byte;
  }

  // Three texts of control characters, each of which becomes six, and all that is around them.
  std::array<char, 3 * 6 * kShownText + 2048> text_;
  std::size_t used_ = 0;
};

// The thread that events are of.
class TracedThread {
 public:
  static const TracedThread& current() noexcept {
    thread_local TracedThread made;
    if (made.generation_ != forkGeneration()) made = TracedThread();
    return made;
  }
  pid_t process() const noexcept { return process_; }
  pid_t thread() const noexcept { return thread_; }
  // What the viewer shows beside it, once.
  void introduceTo(EventText& text) const noexcept {
    if (isIntroduced_) return;
    isIntroduced_ = true;
    introduce(text, "process_name", ::program_invocation_short_name);
    std::array<char, 16> name{};
    if (::pthread_getname_np(::pthread_self(), name.data(), name.size()) == 0)
      introduce(text, "thread_name", name.data());
  }

 private:
  void introduce(EventText& text, const char* what, const char* name) const noexcept {
    text.print(R"({"ph":"M","name":"%s","pid":%d,"tid":%d,"args":{"name":)", what, process_, thread_);
    text.quote(name);
    text.put("}},\n");
  }

  unsigned generation_ = forkGeneration();
  pid_t process_ = ::getpid();
  pid_t thread_ = ::gettid();
  mutable bool isIntroduced_ = false;
};

// One event after the other, which go to the file together.
class Events {
 public:
  Events() noexcept { thread_.introduceTo(text_); }

  // A slice, up to its arguments.
  void slice(const char* what, std::string_view which, std::uint64_t began, std::uint64_t took) noexcept {
    text_.put(R"({"ph":"X","cat":"velto","name":)");
    std::array<char, kShownText> name{};
    std::snprintf(name.data(), name.size(), "%s%s%.*s", what, which.empty() ? "" : " ", static_cast<int>(which.size()),
                  which.data());
    text_.quote(name.data());
    at("ts", began);
    at("dur", std::max<std::uint64_t>(took, 1));
    place();
  }
  void arguments(const ObservedConnection& connection) noexcept {
    text_.print(R"(,"args":{"connection":"0x%016llx","to":)", static_cast<unsigned long long>(connection.key()));
    text_.quote(connection.name());
  }
  void number(const char* name, long long value) noexcept { text_.print(",\"%s\":%lld", name, value); }
  void text(const char* name, const char* value) noexcept {
    text_.print(",\"%s\":", name);
    text_.quote(value);
  }
  void end() noexcept { text_.put("}},\n"); }
  // Threads the slice that began then; nothing without a number.
  void flow(char phase, std::uint64_t number, std::uint64_t began) noexcept {
    if (number == 0) return;
    text_.print(R"({"ph":"%c","cat":"velto","name":"message","id":"0x%016llx")", phase,
                static_cast<unsigned long long>(number));
    if (phase == 'f') text_.put(R"(,"bp":"e")");
    at("ts", began);
    place();
    text_.put("},\n");
  }
  void write() const noexcept {
    try {
      TraceFile::shared().add(text_.view());
    } catch (const std::exception&) {
      // Without memory for the file there is no trace.
    }
  }

 private:
  void at(const char* name, std::uint64_t nanoseconds) noexcept {
    text_.print(",\"%s\":%llu.%03llu", name, static_cast<unsigned long long>(nanoseconds / kNanosecondsInAMicrosecond),
                static_cast<unsigned long long>(nanoseconds % kNanosecondsInAMicrosecond));
  }
  void place() noexcept { text_.print(R"(,"pid":%d,"tid":%d)", thread_.process(), thread_.thread()); }

  const TracedThread& thread_ = TracedThread::current();
  EventText text_;
};

}  // namespace

ObservedConnection::ObservedConnection(const char* name, bool isAccepted) noexcept
    : name_(name), isAccepted_(isAccepted) {
  if (isTraced()) [[unlikely]]
    key_.store(randomKey(), std::memory_order_relaxed);
}

std::uint64_t ObservedConnection::threadOf(bool isOwnCall, std::uint64_t call) const noexcept {
  const std::uint64_t key = this->key();
  if (key == 0) return 0;
  const std::uint64_t madeByAccepted = isOwnCall == isAccepted_ ? 1 : 0;
  // Keys are far apart.
  return key + 2 * call + madeByAccepted;
}

void ObservedConnection::traceConnected(int borrowedSocket, pid_t peer) noexcept {
  if (const std::uint64_t common = keyOf(borrowedSocket)) key_.store(common, std::memory_order_relaxed);
  Events events;
  events.slice("connect", {}, nanosecondsNow(), kMoment);
  events.arguments(*this);
  events.number("peer", peer);
  events.text("end", isAccepted_ ? "accepted" : "connected");
  events.end();
  events.write();
}

void ObservedConnection::traceRefused(bool isOwnCall, std::uint64_t call, std::int64_t code,
                                      const char* reason) noexcept {
  const std::uint64_t now = nanosecondsNow();
  Events events;
  events.slice("refuse", {}, now, kMoment);
  events.arguments(*this);
  events.number("call", static_cast<long long>(call));
  events.number("code", code);
  events.text("reason", reason);
  events.end();
  events.flow(isOwnCall ? 'f' : 't', threadOf(isOwnCall, call), now);
  events.write();
}

void ObservedConnection::traceEnded(End how, const char* reason) noexcept {
  constexpr std::array kHow{"goodbye", "unreachable", "interruption", "invalidated here"};
  Events events;
  events.slice("end", {}, nanosecondsNow(), kMoment);
  events.arguments(*this);
  events.text("how", kHow.at(static_cast<std::size_t>(how)));
  events.text("reason", reason);
  events.end();
  events.write();
}

void ObservedStep::begin(const ObservedConnection& connection, Kind kind, bool isLast, std::uint64_t call,
                         const std::string& selector, std::size_t bytes) noexcept {
  connection_ = &connection;
  kind_ = kind;
  isLast_ = isLast;
  call_ = call;
  selector_ = &selector;
  bytes_ = bytes;
  began_ = nanosecondsNow();
}

void ObservedStep::finish() noexcept {
  constexpr std::array kNames{"send", "deliver", "reply", "answer"};
  const bool isOwnCall = kind_ == Kind::send || kind_ == Kind::answer;
  Events events;
  events.slice(kNames.at(static_cast<std::size_t>(kind_)), *selector_, began_, nanosecondsNow() - began_);
  events.arguments(*connection_);
  events.number("call", static_cast<long long>(call_));
  events.number("bytes", static_cast<long long>(bytes_));
  events.end();
  const char phase = kind_ == Kind::send ? 's' : isLast_ ? 'f' : 't';
  events.flow(phase, connection_->threadOf(isOwnCall, call_), began_);
  events.write();
}

KeyForNextSocket::KeyForNextSocket(const ObservedConnection& connection) noexcept {
  nextKey = connection.key();
}

KeyForNextSocket::~KeyForNextSocket() {
  nextKey = 0;
}

void nameSocketForTrace(int borrowedSocket) noexcept {
  if (nextKey != 0) [[unlikely]]
    bindToKey(borrowedSocket, nextKey);
}

void namePairForTrace(int borrowedSocket) noexcept {
  if (!isTraced()) [[likely]]
    return;
  bindToKey(borrowedSocket, randomKey());
}

}  // namespace velto::system
