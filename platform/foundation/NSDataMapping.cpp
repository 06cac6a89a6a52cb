// Data that is a mapped region of shared memory. The descriptor may come from a peer who means harm: only memory whose
// seals forbid shrinking and writing is mapped, since a region that shrinks kills whoever reads it, and one that
// changes is checked in vain.
#include <cerrno>
#include <string>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include "platform/foundation/Class.h"
#include "platform/foundation/DataBody.h"
#include "platform/foundation/NSData.h"
#include "platform/foundation/NSError.h"

namespace {

constexpr int kNeededSeals = F_SEAL_SHRINK | F_SEAL_WRITE;

struct Refusal {
  int code;
  std::string reason;
};

// Memory of huge pages has seals too, but reading it can fail for want of such pages: only plain memory will do.
bool isPlainSharedMemory(int descriptor) {
  struct statfs system {};
  return fstatfs(descriptor, &system) == 0 && system.f_type == TMPFS_MAGIC;
}

Refusal refusalOf(int descriptor, std::size_t length) {
  struct stat status {};
  if (fstat(descriptor, &status) != 0) return {errno, "it is no open descriptor"};
  const int seals = fcntl(descriptor, F_GET_SEALS);
  if (seals < 0 || !isPlainSharedMemory(descriptor)) return {EINVAL, "it is not a region of shared memory"};
  if ((seals & kNeededSeals) != kNeededSeals) return {EPERM, "it is not sealed against shrinking and writing"};
  if (static_cast<std::size_t>(status.st_size) < length) {
    return {EINVAL, "it holds only " + std::to_string(status.st_size) + " bytes"};
  }
  return {0, {}};
}

NSData refuse(int descriptor, std::size_t length, const Refusal& refusal, NSError* error) {
  if (error == nullptr) return nil;
  const std::string text = "cannot map " + std::to_string(length) + " bytes of descriptor " +
                           std::to_string(descriptor) + ": " + refusal.reason;
  *error = NSError::errorWithDomain("org.velto.platform", refusal.code, {{NSLocalizedDescriptionKey, text}});
  return nil;
}

}  // namespace

NSData NSData::dataMappingDescriptor(int borrowedDescriptor, std::size_t length, NSError* error) {
  if (length == 0) return dataWithVector({});
  const Refusal refusal = refusalOf(borrowedDescriptor, length);
  if (refusal.code != 0) return refuse(borrowedDescriptor, length, refusal, error);
  void* address = mmap(nullptr, length, PROT_READ, MAP_PRIVATE, borrowedDescriptor, 0);
  if (address == MAP_FAILED) return refuse(borrowedDescriptor, length, {errno, "the kernel refused"}, error);
  return NSData(velto::DataBody::borrow(address, length, [address, length] { munmap(address, length); }));
}
