// Structs as messages and as replies.

#include "VeltoIPC/Typed.h"

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "VeltoIPC/Client.h"
#include "VeltoIPC/Service.h"
#include "VeltoIPC/Task.h"
#include "platform/xpc/testing/Support.h"

namespace velto {
namespace {

struct Terms {
  std::vector<double> terms;
  VELTO_FIELDS_ONLY(Terms, terms)
};
struct Sum {
  double sum = 0;
  VELTO_FIELDS(Sum, sum)
};

class TypedCalls : public ::testing::Test {
 protected:
  Client serve() {
    service
        .on<Terms, Sum>("sum",
                        [](const Terms& terms) {
                          Sum sum;
                          for (const double each : terms.terms) sum.sum += each;
                          return sum;
                        })
        .on<Terms, Sum>("first", [](const Terms& terms) -> Outcome<Sum> {
          if (terms.terms.empty()) return CallError(Failure::failed, "there is none", false, 4);
          return Sum{terms.terms[0]};
        });
    service.on<Terms>("last", [](Terms terms, const Request& request) { request.reply(Sum{terms.terms.back()}); });
    service.on<Terms>("keep", [this](const Terms& terms) { kept = terms.terms; });
    service.on("text", [](const Request& request) { request.reply({{"sum", "three"}}); });
    service.start();
    return Client::connect("sums", {.place = place}).value();
  }

  std::vector<double> kept;
  InProcess place;
  Service service{"sums", {.place = place}};
  Client client = serve();
};

TEST_F(TypedCalls, GoAndComeAsStructs) {
  EXPECT_EQ(client.call<Sum>("sum", Terms{{1, 2.5}}).get().value().sum, 3.5);
  auto last = client.call<Sum>("last", Terms{{1, 2.5}}).future();
  EXPECT_EQ(last.wait_for(testing::kGenerous), std::future_status::ready);
  EXPECT_EQ(last.get()->sum, 2.5);
}

TEST_F(TypedCalls, AreAnsweredWithNothingByAHandlerThatReturnsNothing) {
  EXPECT_EQ(client.call("keep", Terms{{1, 2}}).get().value(), NSDictionary::dictionary());
  EXPECT_EQ(kept, (std::vector<double>{1, 2}));
}

TEST_F(TypedCalls, SayThePathOfWhatIsWrongAtEitherEnd) {
  EXPECT_EQ(
      client.call("sum", {{"terms", NSArray{1, "two"}}}).get().error(),
      CallError(Failure::refused, "the message is not what it should be: terms[1]: is a string, not a number", true));
  EXPECT_EQ(client.call<Sum>("text", {}).get().error(),
            CallError(Failure::refused, "the reply is not what it should be: sum: is a string, not a number"));
  EXPECT_EQ(client.call("sum", {{"terms", NSArray::array()}, {"trems", 1}}).get().error().text(),
            "the message is not what it should be: trems: there is no such field");
}

TEST_F(TypedCalls, CarryTheErrorOfAHandler) {
  EXPECT_EQ(client.call<Sum>("first", Terms{}).get().error(), CallError(Failure::failed, "there is none", true, 4));
  EXPECT_EQ(client.call<Sum>("first", Terms{{7}}).get()->sum, 7);
}

TEST_F(TypedCalls, AreWaitedForByCallbacksAndCoroutines) {
  std::promise<double> called;
  client.call<Sum>("sum", Terms{{1}}).then([&](const Outcome<Sum>& sum) { called.set_value(sum->sum); });
  EXPECT_EQ(called.get_future().get(), 1);
  std::promise<double> resumed;
  const auto run = [&]() -> Task {
    const auto call = client.call<Sum>("sum", Terms{{2}});
    const Outcome<Sum> sum = co_await call;
    resumed.set_value(sum->sum);
  };
  run();
  EXPECT_EQ(resumed.get_future().get(), 2);
}

}  // namespace
}  // namespace velto
