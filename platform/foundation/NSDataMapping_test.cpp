#include <cerrno>
#include <cstdio>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/foundation/Foundation.h"

namespace {

constexpr int kAllNeeded = F_SEAL_SHRINK | F_SEAL_WRITE;

// A descriptor that closes itself.
class Descriptor {
 public:
  explicit Descriptor(int owned) : number_(owned) {}
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int number() const { return number_; }

 private:
  const int number_;
};

int memoryWith(const std::string& text, int seals) {
  const int descriptor = memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  EXPECT_EQ(write(descriptor, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  EXPECT_EQ(fcntl(descriptor, F_ADD_SEALS, seals), 0);
  return descriptor;
}

void expectRefused(int descriptor, std::size_t length, int code, const std::string& reason) {
  NSError error;
  EXPECT_TRUE(NSData::dataMappingDescriptor(descriptor, length, &error).isNil());
  EXPECT_EQ(error.domain().string(), "org.velto.platform");
  EXPECT_EQ(error.code(), code);
  EXPECT_NE(error.localizedDescription().view().find(reason), std::string_view::npos) << error.description().view();
  EXPECT_TRUE(NSData::dataMappingDescriptor(descriptor, length).isNil());
}

TEST(NSDataMapping, MapsSealedMemory) {
  const Descriptor memory(memoryWith("shared bytes", kAllNeeded));
  NSError error;
  const NSData data = NSData::dataMappingDescriptor(memory.number(), 12, &error);
  EXPECT_EQ(data.view(), "shared bytes");
  EXPECT_TRUE(error.isNil());
}

TEST(NSDataMapping, OutlivesTheDescriptorAndUnmapsAtTheEnd) {
  NSData data;
  {
    const Descriptor memory(memoryWith("shared bytes", kAllNeeded | F_SEAL_GROW | F_SEAL_SEAL));
    data = NSData::dataMappingDescriptor(memory.number(), 6);
    EXPECT_GE(fcntl(memory.number(), F_GETFD), 0);
  }
  EXPECT_EQ(data.view(), "shared");
  void* const page = const_cast<std::uint8_t*>(data.bytes());
  unsigned char resident = 0;
  EXPECT_EQ(mincore(page, 1, &resident), 0);
  data = nil;
  EXPECT_NE(mincore(page, 1, &resident), 0);
  EXPECT_EQ(errno, ENOMEM);
}

TEST(NSDataMapping, RefusesMemoryThatCouldShrinkOrChange) {
  for (const int seals : {0, F_SEAL_SHRINK, F_SEAL_WRITE, F_SEAL_SHRINK | F_SEAL_FUTURE_WRITE}) {
    const Descriptor memory(memoryWith("bytes", seals));
    expectRefused(memory.number(), 5, EPERM, "not sealed");
  }
}

TEST(NSDataMapping, TakesAllBytesThatThereAreAndRefusesOneMore) {
  const Descriptor memory(memoryWith("bytes", kAllNeeded));
  EXPECT_EQ(NSData::dataMappingDescriptor(memory.number(), 5).length(), 5u);
  expectRefused(memory.number(), 6, EINVAL, "holds only 5 bytes");
  expectRefused(memory.number(), SIZE_MAX, EINVAL, "holds only 5 bytes");
}

TEST(NSDataMapping, RefusesWhatIsNoSharedMemory) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const Descriptor reading(ends[0]);
  const Descriptor writing(ends[1]);
  expectRefused(reading.number(), 1, EINVAL, "not a region of shared memory");
  const Descriptor file(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  expectRefused(file.number(), 1, EINVAL, "not a region of shared memory");
}

TEST(NSDataMapping, RefusesWhatIsNoDescriptor) {
  expectRefused(-1, 1, EBADF, "no open descriptor");
}

TEST(NSDataMapping, MapsNothingForALengthOfZero) {
  EXPECT_EQ(NSData::dataMappingDescriptor(-1, 0).length(), 0u);
  EXPECT_FALSE(NSData::dataMappingDescriptor(-1, 0).isNil());
}

}  // namespace
