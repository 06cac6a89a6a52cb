// The memory is written to by its descriptor, not mapped: so each page is filled as it is made, and never cleared
// first.

#include "platform/xpc/wire/SharedMemory.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/wire/Text.h"

namespace velto::wire {
namespace {

// In which the kernel counts the memory of a file.
constexpr std::uint64_t kBlockBytes = 512;
constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

system::SharedDescriptor shared(system::Descriptor descriptor) {
  return std::make_shared<const system::Descriptor>(std::move(descriptor));
}

bool writeAll(int memory, std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = system::systemCalls().write(memory, bytes.data(), bytes.size());
    if (written <= 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace

system::SharedDescriptor makeRegion(std::span<const std::uint8_t> bytes, std::string& reason) {
  if (bytes.size() > system::systemCalls().fileSizeLimit()) {
    reason = "there is no memory to share: it would be larger than a file may be";
    return nullptr;
  }
  system::Descriptor memory(system::systemCalls().makeMemory());
  if (memory && writeAll(memory.get(), bytes) && system::systemCalls().addSeals(memory.get(), kSeals) == 0) {
    return shared(std::move(memory));
  }
  reason = std::string("there is no memory to share: ") + std::strerror(errno);
  return nullptr;
}

system::SharedDescriptor shareMemory(int borrowedDescriptor) {
  if (borrowedDescriptor < 0) return nullptr;
  system::Descriptor another(system::systemCalls().duplicate(borrowedDescriptor));
  return another ? shared(std::move(another)) : nullptr;
}

bool isRegion(const system::SharedDescriptor& descriptor) {
  return descriptor && system::systemCalls().seals(descriptor->get()) >= 0;
}

std::uint8_t sizeOfRegions(std::size_t bytes) {
  return static_cast<std::uint8_t>(std::bit_width(std::max(bytes, limits::kLeastRegionBytes) - 1));
}

std::string problemOfRegions(const Frame& frame, std::size_t& others) {
  others = 0;
  std::size_t count = 0;
  std::uint64_t bytes = 0;
  bool hasAllItsMemory = true;
  for (const system::SharedDescriptor& each : frame.descriptors) {
    struct stat status {};
    const int seals = each ? system::systemCalls().seals(each->get()) : -1;
    if (seals < 0 || system::systemCalls().status(each->get(), status) != 0) {
      ++others;
      continue;
    }
    if ((seals & kSeals) != kSeals) return "a region that is not sealed against shrinking, growing and writing";
    const auto size = static_cast<std::uint64_t>(status.st_size);
    if (size < limits::kLeastRegionBytes) {
      return "a region of " + std::to_string(size) + " bytes, fewer than " + std::to_string(limits::kLeastRegionBytes);
    }
    if (static_cast<std::uint64_t>(status.st_blocks) < size / kBlockBytes) hasAllItsMemory = false;
    bytes += std::min<std::uint64_t>(size, limits::kMaximumRegionBytes + 1);
    if (++count > limits::kMaximumRegions) return overLimit("regions of a frame", count, limits::kMaximumRegions);
  }
  const std::uint64_t declared = std::uint64_t{1} << frame.regions;
  if (bytes > declared) return overLimit("bytes of a frame's regions", bytes, declared);
  // Whoever reads it would pay for what its sender has not.
  return hasAllItsMemory ? "" : "a region with less memory than bytes";
}

}  // namespace velto::wire
