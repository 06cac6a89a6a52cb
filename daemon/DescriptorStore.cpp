// systemd keeps what it is sent by name, and passes it to the next broker that it starts. It is told not to watch the
// descriptors: a registration ends when this broker says so.
#include "daemon/DescriptorStore.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "platform/logging/VeltoLogging.h"

namespace velto {
namespace {

using system::Descriptor;

constexpr char kTokenPrefix[] = "velto-name-";
// Of two numbers, two line ends, and the longest name there is.
constexpr std::size_t kMostBytes = 512;

Descriptor writtenDown(const StoredName& name) {
  const std::string text =
      std::to_string(name.process) + "\n" + std::to_string(name.since) + "\n" + name.name.string();
  Descriptor memory(::memfd_create("velto-name", MFD_CLOEXEC));
  if (memory && ::write(memory.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size())) return memory;
  return {};
}

bool readNumber(std::string_view& text, auto& number) {
  const auto end = text.find('\n');
  if (end == text.npos) return false;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + end, number);
  if (error != std::errc() || stop != text.data() + end) return false;
  text.remove_prefix(end + 1);
  return true;
}

bool readDown(const Descriptor& memory, StoredName& name) {
  std::array<char, kMostBytes> bytes{};
  const ssize_t length = ::pread(memory.get(), bytes.data(), bytes.size(), 0);
  if (length <= 0) return false;
  std::string_view text(bytes.data(), static_cast<std::size_t>(length));
  if (!readNumber(text, name.process) || !readNumber(text, name.since)) return false;
  name.name = NSString(text);
  return name.name.length() > 0;
}

void sayNotKept(const NSString& name, const char* why) {
  VKTLoggingLog(VKTLogGetAnchor(), 0, "%@ is not kept beyond the end of this process: %s", name, why);
}

// No more of them than there are numbers of descriptors.
std::vector<std::pair<std::string, Descriptor>> takePassed() {
  char** names = nullptr;
  const int count = ::sd_listen_fds_with_names(1, &names);
  std::vector<std::pair<std::string, Descriptor>> passed;
  for (int index = 0; index < count; ++index) {
    const int descriptor = SD_LISTEN_FDS_START + index;
    ::fcntl(descriptor, F_SETFD, FD_CLOEXEC);
    passed.emplace_back(names != nullptr ? names[index] : "", Descriptor(descriptor));
    if (names != nullptr) std::free(names[index]);
  }
  std::free(names);
  return passed;
}

}  // namespace

void DescriptorStore::keep(const StoredName& name) noexcept {
  try {
    const Descriptor memory = writtenDown(name);
    if (!memory) return sayNotKept(name.name, std::strerror(errno));
    const std::array<int, 3> descriptors{name.endpoint.socket()->get(), name.endpoint.hangUp()->get(), memory.get()};
    const std::string state = "FDSTORE=1\nFDPOLL=0\nFDNAME=" + std::string(kTokenPrefix) + name.token;
    const int result = ::sd_pid_notify_with_fds(0, 0, state.c_str(), descriptors.data(), descriptors.size());
    if (result < 0) sayNotKept(name.name, std::strerror(-result));
  } catch (const std::exception& error) {
    sayNotKept(name.name, error.what());
  }
}

void DescriptorStore::forget(const std::string& token) noexcept {
  try {
    ::sd_notify(0, ("FDSTOREREMOVE=1\nFDNAME=" + std::string(kTokenPrefix) + token).c_str());
  } catch (const std::exception&) {
    // It stays, and is found to be gone, or another's, when it is read again.
  }
}

bool readStoredName(std::vector<Descriptor> descriptors, StoredName& name) {
  system::SharedDescriptor socket;
  system::SharedDescriptor hangUp;
  bool isRead = false;
  for (Descriptor& each : descriptors) {
    struct stat status {};
    if (::fstat(each.get(), &status) != 0) return false;
    if (S_ISSOCK(status.st_mode)) {
      socket = std::make_shared<const Descriptor>(std::move(each));
    } else if (S_ISFIFO(status.st_mode)) {
      hangUp = std::make_shared<const Descriptor>(std::move(each));
    } else {
      isRead = readDown(each, name);
    }
  }
  if (!socket || !hangUp || !isRead) return false;
  name.endpoint = NSXPCListenerEndpoint::endpointWithDescriptors(std::move(socket), std::move(hangUp));
  return true;
}

PassedDescriptors PassedDescriptors::take() {
  PassedDescriptors result;
  std::map<std::string, std::vector<Descriptor>> stored;
  for (auto& [name, descriptor] : takePassed()) {
    if (name.starts_with(kTokenPrefix)) {
      stored[name.substr(sizeof(kTokenPrefix) - 1)].push_back(std::move(descriptor));
    } else if (result.listening < 0) {
      result.listening = ::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, 0);
    }
  }
  DescriptorStore store;
  for (auto& [token, descriptors] : stored) {
    StoredName name;
    name.token = token;
    if (readStoredName(std::move(descriptors), name)) {
      result.names.push_back(std::move(name));
    } else {
      store.forget(token);
    }
  }
  std::sort(result.names.begin(), result.names.end(),
            [](const StoredName& one, const StoredName& other) { return one.since < other.since; });
  return result;
}

}  // namespace velto
