// The arrangements: the same ends behind a call or behind a pipe.

#include "tests/support/Arrangement.h"

namespace velto::testing {

namespace {

class ActorHere final : public Actor {
 public:
  std::string ask(const std::string& command) override { return end_.perform(command); }

 private:
  End end_;
};

}  // namespace

std::string nameOf(Arrangement arrangement) {
  switch (arrangement) {
    case Arrangement::allHere:
      return "AllHere";
    case Arrangement::endsHereWithDaemon:
      return "EndsHereWithDaemon";
    case Arrangement::endsInChildrenWithDaemon:
      return "EndsInChildrenWithDaemon";
  }
  return "";
}

ChildActor::ChildActor() : process_({VELTO_TEST_PEER}) {}

std::string ChildActor::ask(const std::string& command) {
  if (!process_.writeLine(command)) return "the child process is gone";
  return process_.readLine().value_or("the child process is gone");
}

ArrangedTest::ArrangedTest() {
  if (GetParam() == Arrangement::allHere) {
    brokerHere = std::make_unique<BrokerHere>();
  } else {
    daemon = std::make_unique<DaemonProcess>();
    EXPECT_TRUE(daemon->listens()) << daemon->words();
  }
}

std::unique_ptr<Actor> ArrangedTest::makeEnd() const {
  if (GetParam() == Arrangement::endsInChildrenWithDaemon) return std::make_unique<ChildActor>();
  return std::make_unique<ActorHere>();
}

std::unique_ptr<Actor> ArrangedTest::makeListener(const std::string& name) const {
  auto made = makeEnd();
  EXPECT_EQ(made->ask("listen " + name), "listening");
  return made;
}

std::unique_ptr<Actor> ArrangedTest::makeClient() const {
  auto made = makeEnd();
  EXPECT_EQ(made->ask("connect flow"), "connecting");
  EXPECT_EQ(made->ask("ready 20"), "yes");
  return made;
}

}  // namespace velto::testing
