// What the listener's conformance tests share.

#include "tests/conformance/ListenerFixture.h"

#include <regex>

namespace velto::testing {

void ListenerHere::clearLogOfHandshakes(std::size_t clients) {
  log.waitFor(2, "Connection Configured and Pinged", clients);
  log.waitFor(2, "VeltoConnection Pinged VeltoListener", clients);
  log.clear();
}

Lines ListenerHere::linesOfEnds() const {
  Lines lines = log.lines();
  std::erase_if(lines, [](const LogCapture::Line& line) {
    return line.text.starts_with("Registered ") || line.text.starts_with("Looked up ") ||
           line.text.starts_with("The listener of ");
  });
  return lines;
}

std::unique_ptr<BareClient> ListenerHere::bareClient() {
  return std::make_unique<BareClient>(TestLink().find(kName));
}

NSDictionary plainMessage() {
  return {{"text", "hello"}, {"numbers", NSArray{1, 2.5, true}}};
}

NSDictionary messageWithDate() {
  return {{"when", NSDate::dateWithTimeIntervalSince1970(1000)}};
}

NSDictionary messageWithAnchor() {
  return {{"anchor", VKTLogAnchor::anchorWithFile("somewhere.cpp", 7, "something")}};
}

VeltoReplyHandler HandlerProbe::handler() const {
  return [calls = calls_](const NSDictionary&) { ++*calls; };
}

VeltoReplyHandler ReplyProbe::handler() const {
  return [promise = promise_](const NSDictionary& reply) { promise->set_value(reply); };
}

NSDictionary ReplyProbe::wait() const {
  if (future_->wait_for(kBound) == std::future_status::ready) return future_->get();
  ADD_FAILURE() << "a reply never came";
  return nil;
}

void Gate::open() {
  promise_.set_value();
}

void Gate::wait() {
  if (opened_.wait_for(kBound) != std::future_status::ready) ADD_FAILURE() << "what was waited for never happened";
}

std::string labelOf(const std::string& line) {
  return line.substr(0, line.find(" handler "));
}

bool isLabelOf(const std::string& label, const NSString& connectionID) {
  const std::string beginning = connectionID.description().string() + "_";
  static const std::regex kUUID("[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}");
  return label.starts_with(beginning) && std::regex_match(label.substr(beginning.size()), kUUID);
}

}  // namespace velto::testing
