// Data that is a mapped region of shared memory. The descriptor may come from a peer who means harm: only memory whose
// seals forbid shrinking and writing is mapped, since a region that shrinks kills whoever reads it, and one that
// changes is checked in vain.
#include <atomic>
#include <cerrno>
#include <string>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "platform/foundation/Class.h"
#include "platform/foundation/DataBody.h"
#include "platform/foundation/NSData.h"
#include "platform/foundation/NSError.h"

using velto::Value;

namespace {

constexpr int kNeededSeals = F_SEAL_SHRINK | F_SEAL_WRITE;
// What cannot grow either holds no more than is seen, and so can be passed on as it is.
constexpr int kSealsOfWhatIsPassedOn = kNeededSeals | F_SEAL_GROW;

std::atomic<std::size_t> foreignMappings{0};

struct Refusal {
  int code;
  std::string reason;
};

// Memory of huge pages has seals too, but reading it can fail for want of such pages: only plain memory will do.
bool isPlainSharedMemory(int descriptor) {
  struct statfs system {};
  return fstatfs(descriptor, &system) == 0 && system.f_type == TMPFS_MAGIC;
}

// Pages that are not there yet would be made for whoever reads them first.
bool hasAllItsMemory(const struct stat& status) {
  constexpr off_t kBlockBytes = 512;
  return status.st_blocks >= status.st_size / kBlockBytes;
}

// The seals first: of a descriptor that has none nothing is asked that somebody else would have to answer.
Refusal refusalOf(int descriptor, std::size_t length, bool isForeign) {
  struct stat status {};
  const int seals = fcntl(descriptor, F_GET_SEALS);
  if (seals < 0 && errno == EBADF) return {EBADF, "it is no open descriptor"};
  if (seals < 0 || !isPlainSharedMemory(descriptor)) return {EINVAL, "it is not a region of shared memory"};
  if ((seals & kNeededSeals) != kNeededSeals) return {EPERM, "it is not sealed against shrinking and writing"};
  if (fstat(descriptor, &status) != 0) return {errno, "its size cannot be told"};
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size < length) return {EINVAL, "it holds only " + std::to_string(size) + " bytes"};
  if (!isForeign) return {0, {}};
  if (size > length) return {EINVAL, "it holds " + std::to_string(size) + " bytes"};
  if (!hasAllItsMemory(status)) return {EINVAL, "it has less memory than bytes"};
  return {0, {}};
}

// -1 when it cannot be passed on, or no descriptor is to be had: then its bytes are.
int descriptorToPassOn(int descriptor, std::size_t length) {
  struct stat status {};
  if ((fcntl(descriptor, F_GET_SEALS) & kSealsOfWhatIsPassedOn) != kSealsOfWhatIsPassedOn) return -1;
  if (fstat(descriptor, &status) != 0 || static_cast<std::size_t>(status.st_size) != length) return -1;
  if (!hasAllItsMemory(status)) return -1;
  return fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
}

NSData refuse(int descriptor, std::size_t length, const Refusal& refusal, NSError* error) {
  if (error == nullptr) return nil;
  const std::string text = "cannot map " + std::to_string(length) + " bytes of descriptor " +
                           std::to_string(descriptor) + ": " + refusal.reason;
  *error = NSError::errorWithDomain("org.velto.platform", refusal.code, {{NSLocalizedDescriptionKey, text}});
  return nil;
}

}  // namespace

void velto::MappedMemory::operator()() const noexcept {
  munmap(address, length);
  if (descriptor >= 0) close(descriptor);
  if (isForeign) --foreignMappings;
}

namespace {

Value map(int borrowedDescriptor, std::size_t length, bool isForeign, Refusal& refusal) {
  refusal = refusalOf(borrowedDescriptor, length, isForeign);
  if (refusal.code != 0) return {};
  void* address = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, borrowedDescriptor, 0);
  if (address == MAP_FAILED) {
    refusal = {errno, "the kernel refused"};
    return {};
  }
  const int kept = isForeign ? -1 : descriptorToPassOn(borrowedDescriptor, length);
  const velto::MappedMemory memory{address, length, kept, isForeign};
  if (isForeign) ++foreignMappings;
  try {
    return velto::DataBody::borrow(address, length, memory);
  } catch (...) {
    memory();
    throw;
  }
}

}  // namespace

NSData NSData::dataMappingDescriptor(int borrowedDescriptor, std::size_t length, NSError* error) {
  if (length == 0) return dataWithVector({});
  Refusal refusal;
  const Value mapped = map(borrowedDescriptor, length, false, refusal);
  return refusal.code == 0 ? NSData(mapped) : refuse(borrowedDescriptor, length, refusal, error);
}

NSData velto::mapForeignMemory(int borrowedDescriptor, std::size_t length, std::size_t most, NSError& error) {
  // Several threads may pass here at once: then it is a few more.
  if (foreignMappings >= most) {
    return refuse(borrowedDescriptor, length, {ENOMEM, std::to_string(most) + " regions are mapped already"}, &error);
  }
  Refusal refusal;
  const NSObject mapped = NSObject::adopt(map(borrowedDescriptor, length, true, refusal));
  return refusal.code == 0 ? mapped.as<NSData>() : refuse(borrowedDescriptor, length, refusal, &error);
}
