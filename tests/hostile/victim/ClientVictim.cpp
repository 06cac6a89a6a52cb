// The client end as a victim, and the honest client whose patience the attacks are measured by.

#include "tests/hostile/victim/ClientVictim.h"

#include <chrono>
#include <thread>

namespace velto::hostile {

namespace {

constexpr double kReadySeconds = 20.0;
constexpr std::size_t kBurst = 256;
constexpr std::chrono::milliseconds kBetweenBursts{1};

}  // namespace

ClientVictim::ClientVictim(const std::string& name) {
  auto place = std::make_shared<std::weak_ptr<VeltoConnection>>();
  delegate_->setSendBack([place](const NSString&, double timeout) {
    const auto connection = place->lock();
    return connection ? connection->sendMessageSync({{"do", "keep"}}, timeout) : NSDictionary();
  });
  connection_ = VeltoConnection::initWithServiceName(name, delegate_);
  *place = connection_;
}

bool ClientVictim::waitUntilReady() {
  return connection_->waitUntilReady(kReadySeconds);
}

void ClientVictim::startWaiters(std::size_t count, double timeout, const std::string& order) {
  for (std::size_t number = 0; number < count; ++number) {
    waiters_.start([connection = connection_, timeout, order] {
      return !connection->sendMessageSync({{"do", order}}, timeout).isNil();
    });
  }
}

std::string ClientVictim::figures() {
  return "accepted=" + std::to_string(flood_->accepted) + " refused=" + std::to_string(flood_->refused);
}

std::string ClientVictim::obey(const std::string& order, std::istringstream& rest) {
  if (order != "flood") return {};
  std::size_t bytes = 0;
  rest >> bytes;
  flood(bytes);
  return "started";
}

void ClientVictim::flood(std::size_t bytes) {
  std::thread([connection = connection_, counts = flood_, bytes] {
    const std::vector<std::uint8_t> payload(bytes, 0x5a);
    const NSDictionary message{{"do", "keep"}, {"data", NSData::dataWithVector(payload)}};
    for (std::size_t number = 1;; ++number) {
      ++(connection->sendMessage(message) ? counts->accepted : counts->refused);
      // The errors of messages that were refused later on are told meanwhile.
      if (number % kBurst == 0) std::this_thread::sleep_for(kBetweenBursts);
    }
  }).detach();
}

int runNewcomer(const std::string& name, double timeout) {
  const auto start = std::chrono::steady_clock::now();
  const auto delegate = std::make_shared<VictimDelegate>();
  const auto connection = VeltoConnection::initWithServiceName(name, delegate);
  NSError error;
  NSDictionary reply;
  if (connection->waitUntilReady(timeout, &error))
    reply = connection->sendMessageSync({{"do", "answer"}}, timeout, &error);
  const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
  connection->close();
  say(reply ? "replied " + std::to_string(taken.count()) : "failed " + error.localizedDescription().string());
  return reply ? 0 : 1;
}

}  // namespace velto::hostile
