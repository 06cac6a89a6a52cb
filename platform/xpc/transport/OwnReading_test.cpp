// A thread that asks and waits: two ends in one process, and which thread reads what.

#include "platform/xpc/transport/OwnReading.h"

#include <thread>

#include "platform/xpc/system/SystemCalls.h"
#include "platform/xpc/testing/Greeter.h"

namespace velto::testing {
namespace {

// Asks over the proxy and waits in a condition, as a synchronous send does.
class Question {
 public:
  void ask(NSXPCProxy<Greeter>& proxy, const std::string& name) {
    proxy.call<&Greeter::greet>(name, NonBlockingReply<NSString>{[answer = answer_](NSString text) {
                                  const ConditionLock lock(answer->condition);
                                  answer->text = text.string();
                                  answer->thread = std::this_thread::get_id();
                                  answer->condition.signal();
                                }});
  }
  // "" when it has not come until then.
  std::string wait(const NSDate& date = NSDate::dateWithTimeIntervalSinceNow(kGenerous.count())) {
    const ConditionLock lock(answer_->condition);
    while (answer_->text.empty() && !answer_->isGivenUp && date.timeIntervalSinceNow() > 0) {
      answer_->condition.waitUntilDate(date);
    }
    return answer_->text;
  }
  void giveUp() {
    const ConditionLock lock(answer_->condition);
    answer_->isGivenUp = true;
    answer_->condition.signal();
  }
  std::thread::id thread() const { return answer_->thread; }

 private:
  struct Answer {
    const NSCondition condition = NSCondition::condition();
    std::string text;
    std::thread::id thread;
    bool isGivenUp = false;
  };
  const std::shared_ptr<Answer> answer_ = std::make_shared<Answer>();
};

// Counts the threads that sleep until a socket can be read. Never destroyed: a thread may be in one of its calls.
class SleepCounter final : public system::SystemCalls {
 public:
  static SleepCounter& start() {
    static auto& made = *new SleepCounter;
    made.refusals = 0;
    made.fails = false;
    system::replaceSystemCalls(&made);
    return made;
  }

  int awaitReadable(int descriptor, int other, std::uint64_t nanoseconds) override {
    if (fails) return errno = ENOMEM, -1;
    ++asleep;
    const int result = SystemCalls::awaitReadable(descriptor, other, nanoseconds);
    --asleep;
    return result;
  }
  ssize_t write(int descriptor, const void* bytes, std::size_t length) override {
    if (refusals.fetch_sub(1) > 0) return errno = EIO, -1;
    return SystemCalls::write(descriptor, bytes, length);
  }

  std::atomic<int> asleep{0};
  std::atomic<int> refusals{0};
  std::atomic<bool> fails{false};
};

class OwnReading : public ::testing::Test {
 protected:
  OwnReading() {
    listener->setDelegate(service);
    listener->resume();
    client = std::make_unique<GreeterClient>(NSXPCConnection::initWithListenerEndpoint(listener->endpoint()));
    client->greet("first");
  }
  ~OwnReading() override { system::replaceSystemCalls(nullptr); }
  // Answers to greetings wait until they are let go.
  void holdAnswers() {
    service->greeter->onGreet = [this](const NSString& name, const std::function<void(NSString)>& reply) {
      held.put([name, reply] { reply("hello " + name.string()); });
    };
  }

  const PrivateRuntimeDirectory directory;
  const std::shared_ptr<GreeterService> service = std::make_shared<GreeterService>();
  const std::shared_ptr<NSXPCListener> listener = NSXPCListener::anonymousListener();
  std::unique_ptr<GreeterClient> client;
  Inbox<std::function<void()>> held;
  SleepCounter& kernel = SleepCounter::start();
};

TEST_F(OwnReading, AnAnswerIsReadByTheThreadThatWaitsForIt) {
  holdAnswers();
  int own = 0;
  // On a machine that is busy the answer may come when the thread has waited for too long.
  for (std::size_t number = 1; number <= 20 && own == 0; ++number) {
    Question question;
    question.ask(*client->proxy, "Ada");
    std::thread answers([&] {
      ASSERT_TRUE(eventually([&] { return kernel.asleep > 0; }));
      held.waitFor(number).back()();
    });
    EXPECT_EQ(question.wait(), "hello Ada");
    answers.join();
    own += question.thread() == std::this_thread::get_id() ? 1 : 0;
  }
  EXPECT_GT(own, 0);
}

TEST_F(OwnReading, WhatElseComesMeanwhileIsDeliveredAsEver) {
  holdAnswers();
  Question question;
  question.ask(*client->proxy, "Ada");
  const auto back = service->accepted.waitFor(1).front()->remoteObjectProxyWithErrorHandler<Greeter>([](NSError) {});
  std::thread answers([&] {
    ASSERT_TRUE(eventually([&] { return kernel.asleep > 0; }));
    for (int number = 0; number < 100; ++number) back->call<&Greeter::tell>(NSDictionary{{"n", number}});
    held.waitFor(1).front()();
  });
  EXPECT_EQ(question.wait(), "hello Ada");
  answers.join();
  const auto told = client->greeter->told.waitFor(100);
  for (int number = 0; number < 100; ++number) {
    EXPECT_EQ(told[static_cast<std::size_t>(number)]["n"].integerValue(), number);
  }
}

TEST_F(OwnReading, ASignalOfAnotherThreadEndsTheWait) {
  holdAnswers();
  Question question;
  question.ask(*client->proxy, "Ada");
  std::thread other([&] {
    ASSERT_TRUE(eventually([&] { return kernel.asleep > 0; }));
    // The kernel may refuse a few times.
    kernel.refusals = 3;
    question.giveUp();
  });
  EXPECT_EQ(question.wait(), "");
  other.join();
  // Afterwards the connection is read as before.
  held.waitFor(1).front()();
  service->greeter->onGreet = TestGreeter().onGreet;
  EXPECT_EQ(client->greet("Bob"), "hello Bob");
}

TEST_F(OwnReading, TheEndOfTheConnectionIsHeardOfMeanwhile) {
  holdAnswers();
  Question question;
  question.ask(*client->proxy, "Ada");
  std::thread other([&] {
    ASSERT_TRUE(eventually([&] { return kernel.asleep > 0; }));
    service->accepted.waitFor(1).front()->invalidate();
    client->events.waitFor(2);
    question.giveUp();
  });
  EXPECT_EQ(question.wait(), "");
  other.join();
  EXPECT_EQ(client->events.soFar(), (std::vector<std::string>{"error", "invalidated"}));
}

TEST_F(OwnReading, AWaitThatIsLongLeavesTheReadingToTheReactor) {
  holdAnswers();
  Question question;
  question.ask(*client->proxy, "Ada");
  std::thread answers([&] {
    ASSERT_TRUE(eventually([&] { return kernel.asleep > 0; }));
    ASSERT_TRUE(eventually([&] { return kernel.asleep == 0; }));
    held.waitFor(1).front()();
  });
  EXPECT_EQ(question.wait(), "hello Ada");
  answers.join();
  EXPECT_NE(question.thread(), std::this_thread::get_id());
}

TEST_F(OwnReading, WhereTheKernelCannotWaitTheReactorReads) {
  kernel.fails = true;
  holdAnswers();
  Question question;
  question.ask(*client->proxy, "Ada");
  std::thread answers([&] { held.waitFor(1).front()(); });
  EXPECT_EQ(question.wait(), "hello Ada");
  answers.join();
}

// As what ends with a thread may do: here, what was made before all else of the thread.
struct AsksAtTheEnd {
  ~AsksAtTheEnd() {
    Question question;
    question.ask(*proxy, "Ada");
    answers->put(question.wait());
  }
  std::shared_ptr<NSXPCProxy<Greeter>> proxy;
  Inbox<std::string>* answers = nullptr;
};

TEST_F(OwnReading, AThreadThatEndsCanStillAskAndWait) {
  Inbox<std::string> answers;
  for (int number = 0; number < 20; ++number) {
    std::thread([&] {
      static thread_local AsksAtTheEnd last;
      last.proxy = client->proxy;
      last.answers = &answers;
      Question question;
      question.ask(*client->proxy, "Bob");
      EXPECT_EQ(question.wait(), "hello Bob");
    }).join();
  }
  EXPECT_EQ(answers.waitFor(20), std::vector<std::string>(20, "hello Ada"));
}

TEST_F(OwnReading, OfManyThreadsThatWaitOnOneConnectionEachGetsItsAnswer) {
  std::vector<std::thread> threads;
  std::atomic<int> right{0};
  for (int each = 0; each < 8; ++each) {
    threads.emplace_back([&, each] {
      for (int number = 0; number < 200; ++number) {
        const std::string name = std::to_string(each) + "." + std::to_string(number);
        Question question;
        question.ask(*client->proxy, name);
        right += question.wait() == "hello " + name ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, 8 * 200);
}

}  // namespace
}  // namespace velto::testing
