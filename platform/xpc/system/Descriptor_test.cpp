#include "platform/xpc/system/Descriptor.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace velto::system {
namespace {

bool isOpen(int descriptor) {
  return ::fcntl(descriptor, F_GETFD) >= 0;
}

int openSomething() {
  return ::open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST(Descriptor, ClosesWhatItOwnsWhenDestroyed) {
  int number = -1;
  {
    const Descriptor descriptor(openSomething());
    number = descriptor.get();
    ASSERT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(Descriptor, IsNoneWhenMadeFromAFailedCall) {
  const Descriptor none(-1);
  EXPECT_FALSE(none);
  EXPECT_EQ(none.get(), -1);
}

TEST(Descriptor, MovesItsOwnership) {
  Descriptor first(openSomething());
  const int number = first.get();
  Descriptor second(std::move(first));
  EXPECT_EQ(second.get(), number);
  Descriptor third(openSomething());
  const int replaced = third.get();
  third = std::move(second);
  EXPECT_EQ(third.get(), number);
  EXPECT_FALSE(isOpen(replaced));
  EXPECT_TRUE(isOpen(number));
}

TEST(Descriptor, IsClosedInTheChildOfAForkAndLeftAloneThere) {
  const Descriptor descriptor(openSomething());
  const int number = descriptor.get();
  const unsigned generation = forkGeneration();
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (isOpen(number) || descriptor || forkGeneration() != generation + 1) ::_exit(1);
    // The number may now be somebody else's: the inherited object must not close it.
    if (::dup2(openSomething(), number) != number) ::_exit(2);
    const_cast<Descriptor&>(descriptor).reset();
    ::_exit(isOpen(number) ? 0 : 3);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_TRUE(isOpen(number)) << "the parent's must stay open";
}

}  // namespace
}  // namespace velto::system
