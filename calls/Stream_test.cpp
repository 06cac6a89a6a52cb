// Streams between two ends in one process.

#include "VeltoIPC/Stream.h"

#include <atomic>
#include <future>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "VeltoIPC/Client.h"
#include "VeltoIPC/Service.h"
#include "VeltoIPC/Task.h"
#include "calls/ItemSize.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/NSFileDescriptor.h"
#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/testing/Support.h"

namespace velto {
namespace {

using namespace std::chrono_literals;
using testing::eventually;
using testing::Inbox;

class Streams : public ::testing::Test {
 protected:
  ~Streams() override {
    // Its end waits for the handlers that run: no thread is added behind our back.
    { const Service ended = std::move(service); }
    for (std::thread& each : threads) each.join();
  }

  Client serve() {
    service.on("count", [this](const Request& request) { count(request); });
    service.on("sum", [this](const Request& request) { sum(request); });
    service.start();
    return Client::connect("numbers", {.place = place}).value();
  }
  // Writes the numbers up to "to", on a thread of its own.
  void count(const Request& request) {
    threads.emplace_back([this, request] {
      const auto to = request.message()["to"].integerValue();
      const Stream stream = request.stream();
      for (std::int64_t number = 0; number < to; ++number) {
        if (const auto error = stream.write({{"number", number}})) return writeErrors.put(*error);
        written = number + 1;
      }
      request.reply({{"counted", to}});
    });
  }
  // Answers with the sum of what comes.
  void sum(const Request& request) {
    threads.emplace_back([request] {
      std::int64_t sum = 0;
      for (const NSDictionary& item : request.stream()) sum += item["number"].integerValue();
      request.reply({{"sum", sum}});
    });
  }

  InProcess place;
  std::vector<std::thread> threads;
  Inbox<CallError> writeErrors;
  std::atomic<std::int64_t> written{0};
  Service service{"numbers", {.place = place}};
  Client client = serve();
};

TEST_F(Streams, BringEveryItemInOrderAndThenTheAnswer) {
  constexpr std::int64_t kMany = 5'000;
  const Stream stream = client.open({{"op", "count"}, {"to", kMany}});
  std::int64_t next = 0;
  for (const NSDictionary& item : stream) EXPECT_EQ(item["number"].integerValue(), next++);
  EXPECT_EQ(next, kMany);
  EXPECT_EQ(stream.result().value(), (NSDictionary{{"counted", kMany}}));
}

TEST_F(Streams, AnEmptyStreamEndsWithTheAnswer) {
  const Stream stream = client.open({{"op", "count"}, {"to", 0}});
  EXPECT_FALSE(stream.next().get());
  EXPECT_EQ(stream.result().value(), (NSDictionary{{"counted", 0}}));
}

TEST_F(Streams, GoToTheServiceToo) {
  const Stream stream = client.open({{"op", "sum"}});
  constexpr std::int64_t kMany = 2'000;
  for (std::int64_t number = 1; number <= kMany; ++number) ASSERT_FALSE(stream.write({{"number", number}}));
  stream.finish();
  EXPECT_EQ(stream.result().value(), (NSDictionary{{"sum", kMany * (kMany + 1) / 2}}));
  EXPECT_EQ(stream.write({{"number", 1}}).value().failure(), Failure::closed);
}

TEST_F(Streams, AreReadInsideOfACallbackToo) {
  service.on("sum here", [](const Request& request) {
    std::int64_t sum = 0;
    for (const NSDictionary& item : request.stream()) sum += item["number"].integerValue();
    request.reply({{"sum", sum}});
  });
  const Stream stream = client.open({{"op", "sum here"}});
  for (int number = 0; number < 1'000; ++number) ASSERT_FALSE(stream.write({{"number", 1}}));
  stream.finish();
  EXPECT_EQ(stream.result().value(), (NSDictionary{{"sum", 1'000}}));
}

TEST_F(Streams, AnEndThatComesBeforeTheTurnOfItsCallIsKept) {
  std::promise<void> release;
  service.on("block", [released = release.get_future().share()](const Request&) { released.wait(); });
  const Call blocked = client.call("block", {});
  const Stream stream = client.open("sum", {});
  stream.finish();
  // Behind it, and ahead of the call.
  client.open("sum", {}).cancel();
  release.set_value();
  EXPECT_EQ(stream.result().value(), (NSDictionary{{"sum", 0}}));
}

TEST_F(Streams, CoroutinesThatWaitAreResumedBeforeTheirServiceIsGone) {
  auto inside = std::make_unique<std::atomic<int>>(0);
  auto brief = std::make_unique<Service>("brief", ServiceOptions{.place = place});
  brief->on("watch", [&inside = *inside](Request request) -> Task {
    ++inside;
    while (co_await request.stream().next()) continue;
    --inside;
  });
  brief->start();
  const Client watcher = Client::connect("brief", {.place = place}).value();
  std::vector<Stream> streams;
  for (int each = 0; each < 5; ++each) streams.push_back(watcher.open("watch", {}));
  ASSERT_TRUE(eventually([&] { return *inside == 5; }));
  brief.reset();
  EXPECT_EQ(*inside, 0);
}

TEST_F(Streams, ASlowReaderBoundsItsWriter) {
  const Stream stream = client.open({{"op", "count"}, {"to", 100'000}});
  // What is kept for the reader, and not one more.
  ASSERT_TRUE(eventually([this] { return written == limits::kStreamItems; }));
  ASSERT_TRUE(stream.next().get());
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(written, limits::kStreamItems);
  for (std::size_t read = 1; read < limits::kStreamItems / 2; ++read) ASSERT_TRUE(stream.next().get());
  EXPECT_TRUE(eventually([this] { return written == limits::kStreamItems * 3 / 2; }));
}

TEST_F(Streams, LargeItemsCountByTheirBytes) {
  std::atomic<std::size_t> taken{0};
  service.on("large", [&](const Request& request) {
    threads.emplace_back([&taken, request] {
      const NSDictionary item = {{"data", NSData(std::vector<std::uint8_t>(limits::kStreamBytes / 4))}};
      while (!request.stream().write(item)) ++taken;
    });
  });
  const Stream stream = client.open({{"op", "large"}});
  ASSERT_TRUE(eventually([&] { return taken == 4; }));
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(taken, 4U);
  ASSERT_TRUE(stream.next().get());
  ASSERT_TRUE(stream.next().get());
  EXPECT_TRUE(eventually([&] { return taken == 6; }));
}

TEST_F(Streams, WhoMayNotWaitIsToldThatTheOtherEndIsBehind) {
  const Stream sums = client.open({{"op", "sum"}});
  ASSERT_TRUE(eventually([&] { return !sums.tryWrite({{"number", 1}}); }));
  EXPECT_FALSE(sums.write({{"number", 1}}, 10s));
  Inbox<std::optional<CallError>> full;
  service.on("holds", [&](const Request& request) {
    std::optional<CallError> error;
    while (!error) error = request.stream().write({{"number", 1}});
    full.put(error);
  });
  const Stream held = client.open({{"op", "holds"}});
  EXPECT_EQ(full.waitFor(1)[0]->failure(), Failure::full) << "a handler on a thread of the platform waits for nobody";
}

TEST_F(Streams, AWriterThatWaitsHasATime) {
  Inbox<Request> requests;
  service.on("holds", [&](const Request& request) { requests.put(request); });
  const Stream held = client.open({{"op", "holds"}});
  // Nobody reads there.
  EXPECT_EQ(held.write({}, 10ms).value().failure(), Failure::timedOut);
  requests.waitFor(1)[0].reply({});
  EXPECT_TRUE(held.result());
}

TEST_F(Streams, ACoroutineReadsAndWrites) {
  service.on("echo", [](Request request) -> Task {
    const Stream stream = request.stream();
    while (const auto item = co_await stream.next()) {
      if (co_await stream.writing(*item)) co_return;
    }
    request.reply({{"done", true}});
  });
  std::promise<std::int64_t> count;
  const auto run = [&](const Stream& stream) -> Task {
    std::int64_t echoed = 0;
    while (const auto item = co_await stream.next()) echoed += item->objectForKey("number").integerValue();
    count.set_value(echoed);
  };
  const Stream stream = client.open({{"op", "echo"}});
  run(stream);
  for (int number = 0; number < 1'000; ++number) ASSERT_FALSE(stream.write({{"number", 1}}));
  stream.finish();
  EXPECT_EQ(count.get_future().get(), 1'000);
  EXPECT_EQ(stream.result().value(), (NSDictionary{{"done", true}}));
}

TEST_F(Streams, CallbacksGetOneItemAfterTheOtherAndThenTheEnd) {
  Inbox<std::int64_t> numbers;
  std::promise<Stream::Result> ended;
  client.open({{"op", "count"}, {"to", 700}})
      .forEach([&](const NSDictionary& item) { numbers.put(item["number"].integerValue()); },
               [&](Stream::Result result) { ended.set_value(std::move(result)); });
  EXPECT_EQ(ended.get_future().get().value(), (NSDictionary{{"counted", 700}}));
  EXPECT_EQ(numbers.soFar().size(), 700U);
}

TEST_F(Streams, AReaderThatRaisesAnExceptionOfAnyTypeTakesTheCallBack) {
  const auto readBy = [&](std::function<void(NSDictionary)> reader) {
    std::promise<Stream::Result> ended;
    client.open({{"op", "count"}, {"to", 100'000}}).forEach(std::move(reader), [&](Stream::Result result) {
      ended.set_value(std::move(result));
    });
    return ended.get_future().get().error().failure();
  };
  EXPECT_EQ(readBy([](const NSDictionary&) { throw std::runtime_error("enough"); }), Failure::cancelled);
  EXPECT_EQ(readBy([](const NSDictionary&) { throw 7; }), Failure::cancelled);
  EXPECT_EQ(writeErrors.waitFor(2)[1].failure(), Failure::cancelled);
}

TEST_F(Streams, WhoLetsGoOfOneTakesTheCallBack) {
  {
    const Stream stream = client.open({{"op", "count"}, {"to", 100'000}});
    ASSERT_TRUE(stream.next().get());
  }
  EXPECT_EQ(writeErrors.waitFor(1)[0].failure(), Failure::cancelled);
}

TEST_F(Streams, AFailedCallLeavesWhatCameBefore) {
  service.on("fails", [](const Request& request) {
    request.stream().write({{"number", 7}});
    request.fail("that is all", 3);
  });
  const Stream stream = client.open({{"op", "fails"}});
  EXPECT_EQ(stream.next().get(), (NSDictionary{{"number", 7}}));
  EXPECT_FALSE(stream.next().get());
  EXPECT_EQ(stream.result().error(), CallError(Failure::failed, "that is all", true, 3));
}

TEST_F(Streams, TheEndOfTheConnectionIsTheEndOfBothEnds) {
  const Stream stream = client.open({{"op", "count"}, {"to", 100'000}});
  ASSERT_TRUE(stream.next().get());
  client.close();
  while (stream.next().get()) continue;
  EXPECT_EQ(stream.result().error().failure(), Failure::closed);
  EXPECT_EQ(writeErrors.waitFor(1)[0].failure(), Failure::peerGone);
}

TEST_F(Streams, CarryDescriptorsBothWaysWhereTheyAreAdmitted) {
  Service lender("lender", {.admitsDescriptors = true, .place = place});
  lender.on("echo", [this](const Request& request) {
    threads.emplace_back([request] {
      for (const NSDictionary& item : request.stream()) request.stream().write(item);
      request.reply({{"done", true}});
    });
  });
  lender.start();
  const Client borrower = Client::connect("lender", {.admitsDescriptors = true, .place = place}).value();
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const NSFileDescriptor writeEnd = NSFileDescriptor::fileDescriptorTaking(ends[1]);
  const NSFileDescriptor readEnd = NSFileDescriptor::fileDescriptorTaking(ends[0]);
  const Stream stream = borrower.open({{"op", "echo"}});
  ASSERT_FALSE(stream.write({{"end", writeEnd}}));
  const auto came = (*stream.next().get())["end"].as<NSFileDescriptor>();
  stream.finish();
  ASSERT_NE(came.descriptor(), writeEnd.descriptor());
  ASSERT_EQ(::write(came.descriptor(), "x", 1), 1);
  char byte = 0;
  EXPECT_EQ(::read(readEnd.descriptor(), &byte, 1), 1);
  EXPECT_EQ(byte, 'x');
  EXPECT_TRUE(stream.result());
}

TEST_F(Streams, AnItemOverALimitIsRefusedAndTheStreamGoesOn) {
  service.on("tower", [this](const Request& request) {
    NSDictionary tower = {{"level", 1}};
    for (std::size_t level = 0; level < limits::kMaximumDepth; ++level) tower = {{"level", tower}};
    writeErrors.put(request.stream().write(tower).value());
    request.stream().write({{"number", 1}});
    request.reply({});
  });
  const Stream stream = client.open({{"op", "tower"}});
  EXPECT_EQ(stream.next().get(), (NSDictionary{{"number", 1}}));
  EXPECT_FALSE(stream.next().get());
  EXPECT_EQ(writeErrors.waitFor(1)[0].failure(), Failure::overLimit);
}

TEST_F(Streams, ARequestWithoutOneRefusesItems) {
  service.on("plain", [this](const Request& request) {
    EXPECT_FALSE(request.hasStream());
    EXPECT_FALSE(request.stream().next().get());
    writeErrors.put(request.stream().write({}).value());
    request.reply({});
  });
  EXPECT_TRUE(client.call({{"op", "plain"}}).get());
  EXPECT_EQ(writeErrors.waitFor(1)[0].failure(), Failure::refused);
}

TEST_F(Streams, OneClientHasNoMoreThanItsShare) {
  Inbox<Request> requests;
  service.on("holds", [&](const Request& request) { requests.put(request); });
  std::vector<Stream> streams;
  for (std::size_t open = 0; open < limits::kStreamsOfOnePeer; ++open) {
    streams.push_back(client.open({{"op", "holds"}}));
  }
  EXPECT_EQ(client.open({{"op", "holds"}}).result().error().failure(), Failure::overLimit);
  requests.waitFor(1)[0].reply({});
  EXPECT_TRUE(streams[0].result());
  EXPECT_EQ(client.open({{"op", "count"}, {"to", 0}}).result().value(), (NSDictionary{{"counted", 0}}));
  for (const Request& each : requests.waitFor(limits::kStreamsOfOnePeer)) each.reply({});
}

TEST(ItemSize, IsThatOfTextAndDataAndALittleForEveryObject) {
  EXPECT_EQ(calls::sizeOfItem(NSDictionary{}), 16U);
  EXPECT_EQ(calls::sizeOfItem(NSDictionary{{"key", NSArray{1, "four"}}}), 16U + 19 + 16 + 16 + 20);
}

}  // namespace
}  // namespace velto
