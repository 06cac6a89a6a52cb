// The census of descriptors is taken after a first exchange, so that the reactor's own do not count.

#include "tests/faults/FaultTest.h"

#include "tests/support/Census.h"
#include "tests/support/Waiting.h"

namespace velto::testing {

FaultTest::FaultTest() {
  expectWhole("the first exchange");
  // Whatever still closes makes the count smaller.
  atRest_ = openDescriptors();
  for (std::size_t count = 0; count != atRest_;) {
    count = atRest_;
    expectWhole("an exchange without faults");
    eventually([&] { return openDescriptors() <= count; });
    atRest_ = openDescriptors();
  }
}

FaultTest::~FaultTest() {
  plan.end();
}

void FaultTest::expectWhole(const std::string& when) {
  const Transcript transcript = runExchange();
  EXPECT_TRUE(transcript.isWhole()) << when << ":" << transcript.description();
}

void FaultTest::expectNothingBroken(const Transcript& transcript, const std::string& when) {
  EXPECT_TRUE(transcript.broken.empty()) << when << ":" << transcript.description();
}

void FaultTest::expectAtRest(const std::string& when, std::size_t held) {
  EXPECT_TRUE(eventually([&] { return openDescriptors() <= atRest_ + held; }))
      << when << ": " << openDescriptors() << " descriptors, " << atRest_ + held << " expected";
}

}  // namespace velto::testing
