// A process that uses the broker as its test tells it to. A line on standard input says what, a line on standard output
// what came of it:
//   links COUNT                opens so many links more, and keeps them: how many were answered
//   deaf COUNT                 the same, but reads none of many answers: how many were asked for
//   use NUMBER                 looks something up over one of the links, counted from 0: as find
//   names COUNT PREFIX         registers PREFIX0, PREFIX1 and so on, over links that it drops when they have taken as
//                              many as one may: how many were taken
//   names COUNT PREFIX OTHER   the same, with the endpoint that is found under OTHER
//   wait COUNT                 waits for so many names that nobody has, over a link of its own, which it keeps: how
//   many
//                              were not refused
//   forget                     lets go of the links over which it waits
//   find NAME                  over a link of its own: "found", "nothing", or the error

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "VeltoIPC/Limits.h"
#include "broker/VeltoIPCNamesProtocol.h"
#include "platform/xpc/NSXPCConnection.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/transport/Sockets.h"
#include "platform/xpc/wire/Messages.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace {

struct Answer {
  NSXPCListenerEndpoint endpoint;
  NSError error;
};
using Answered = std::future<Answer>;

class Link {
 public:
  Link() {
    connection_->setRemoteObjectInterface(NSXPCInterface::interfaceWithProtocol<VeltoIPCNamesProtocol>());
    connection_->resume();
  }
  ~Link() { connection_->invalidate(); }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;

  Answered find(const std::string& name) {
    auto promise = std::make_shared<std::promise<Answer>>();
    auto answered = promise->get_future();
    proxy([promise](const NSError& error) {
      promise->set_value({nil, error});
    })->call<&VeltoIPCNamesProtocol::findListenerEndpointForName>(name, [promise](NSXPCListenerEndpoint endpoint) {
      promise->set_value({endpoint, nil});
    });
    return answered;
  }
  void registerEndpoint(const NSXPCListenerEndpoint& endpoint, const std::string& name) {
    proxy([refused = refused_](const NSError&) {
      ++*refused;
    })->call<&VeltoIPCNamesProtocol::sendListenerConnection>(endpoint, name);
  }
  void waitFor(const std::string& name) {
    proxy([refused = refused_](const NSError&) {
      ++*refused;
    })->call<&VeltoIPCNamesProtocol::waitForName>(name, nil, [](const NSXPCListenerEndpoint&) {});
  }
  // Of what was registered or waited for; known once a look-up that came after it is answered.
  std::size_t refused() const { return *refused_; }

 private:
  std::shared_ptr<NSXPCProxy<VeltoIPCNamesProtocol>> proxy(std::function<void(NSError)> errors) {
    return connection_->remoteObjectProxyWithErrorHandler<VeltoIPCNamesProtocol>(std::move(errors));
  }

  const std::shared_ptr<std::atomic<std::size_t>> refused_ = std::make_shared<std::atomic<std::size_t>>(0);
  const std::shared_ptr<NSXPCConnection> connection_ = NSXPCConnection::initWithServiceName(VeltoIPCDaemonServiceName);
};

// Asks and asks and reads nothing, within what the broker gives it credit for.
class DeafLink {
 public:
  static constexpr std::uint64_t kQuestions = 2000;

  DeafLink() {
    send(velto::wire::Hello::ours().encode());
    for (std::uint64_t identifier = 1; identifier <= kQuestions; ++identifier) {
      velto::wire::ValueEncoder encoder(velto::wire::FrameType::call);
      velto::wire::encodeCallHeader(encoder, {identifier, "findListenerEndpointForName:handle:", true});
      encoder.add(NSString("nobody"));
      send(encoder.take());
    }
  }
  // Whether the broker has read all of it.
  bool isHeard() const {
    int unread = 0;
    return ::ioctl(socket_.get(), SIOCOUTQ, &unread) == 0 && unread == 0;
  }

 private:
  void send(const velto::wire::Frame& frame) {
    const auto header = velto::wire::FrameHeader{static_cast<std::uint32_t>(frame.body.size()), frame.type, 0}.encode();
    std::vector<std::uint8_t> bytes(header.begin(), header.end());
    bytes.insert(bytes.end(), frame.body.begin(), frame.body.end());
    while (::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0 && errno == EAGAIN) {
      pollfd room{socket_.get(), POLLOUT, 0};
      ::poll(&room, 1, -1);
    }
  }

  const velto::system::Descriptor socket_ = velto::transport::connectToService(VeltoIPCDaemonServiceName).socket;
};

class Guest {
 public:
  std::string obey(const std::string& line) {
    std::istringstream words(line);
    std::string what;
    words >> what;
    if (what == "find") {
      std::string name;
      words >> name;
      return find(name);
    }
    std::size_t count = 0;
    std::string prefix;
    std::string other;
    words >> count >> prefix >> other;
    if (what == "use") return told(links_.at(count)->find("nobody").get());
    if (what == "wait") return std::to_string(waitForNames(count));
    if (what == "forget") return forget();
    if (what == "links") return std::to_string(openLinks(count));
    if (what == "deaf") return std::to_string(openDeafLinks(count));
    return std::to_string(registerNames(count, prefix, other));
  }

 private:
  static std::string find(const std::string& name) { return told(Link().find(name).get()); }

  static std::string told(const Answer& answer) {
    if (answer.error) return answer.error.localizedDescription().string();
    return answer.endpoint ? "found" : "nothing";
  }

  std::size_t openLinks(std::size_t count) {
    std::vector<Answered> answers;
    for (std::size_t opened = 0; opened < count; ++opened) {
      links_.push_back(std::make_unique<Link>());
      answers.push_back(links_.back()->find("nobody"));
    }
    return static_cast<std::size_t>(
        std::count_if(answers.begin(), answers.end(), [](Answered& answer) { return !answer.get().error; }));
  }

  std::size_t openDeafLinks(std::size_t count) {
    for (std::size_t opened = 0; opened < count; ++opened) {
      deafLinks_.push_back(std::make_unique<DeafLink>());
      while (!deafLinks_.back()->isHeard()) std::this_thread::yield();
    }
    return count * DeafLink::kQuestions;
  }

  std::size_t registerNames(std::size_t count, const std::string& prefix, const std::string& other) {
    const NSXPCListenerEndpoint endpoint = other.empty() ? listener_->endpoint() : Link().find(other).get().endpoint;
    std::size_t taken = 0;
    for (std::size_t first = 0; first < count; first += velto::limits::kBrokerNamesOfOneLink) {
      const std::size_t end = std::min(count, first + velto::limits::kBrokerNamesOfOneLink);
      Link link;
      for (std::size_t number = first; number < end; ++number) {
        link.registerEndpoint(endpoint, prefix + std::to_string(number));
      }
      if (link.find("nobody").get().error) return taken;
      taken += end - first - link.refused();
    }
    return taken;
  }

  std::size_t waitForNames(std::size_t count) {
    waitingLinks_.push_back(std::make_unique<Link>());
    Link& link = *waitingLinks_.back();
    for (std::size_t number = 0; number < count; ++number) link.waitFor("nobody's" + std::to_string(number));
    if (link.find("nobody").get().error) return 0;
    return count - link.refused();
  }

  std::string forget() {
    waitingLinks_.clear();
    return "done";
  }

  const std::shared_ptr<NSXPCListener> listener_ = NSXPCListener::anonymousListener();
  std::vector<std::unique_ptr<Link>> links_;
  std::vector<std::unique_ptr<DeafLink>> deafLinks_;
  std::vector<std::unique_ptr<Link>> waitingLinks_;
};

}  // namespace

int main() {
  Guest guest;
  std::string line;
  while (std::getline(std::cin, line)) std::cout << guest.obey(line) << std::endl;
  return 0;
}
