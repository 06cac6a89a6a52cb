#include "tools/veltoctl/Events.h"

#include <array>
#include <cstdio>
#include <ctime>
#include <utility>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/JSON.h"
#include "tools/veltoctl/Output.h"

namespace velto::ctl {
namespace {

std::string clockText(std::chrono::system_clock::time_point time) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
  const auto rest = std::chrono::duration_cast<std::chrono::microseconds>(time - seconds).count();
  const std::time_t whole = std::chrono::system_clock::to_time_t(seconds);
  std::tm parts{};
  localtime_r(&whole, &parts);
  std::array<char, 32> text{};
  std::strftime(text.data(), text.size(), "%H:%M:%S", &parts);
  std::array<char, 48> result{};
  std::snprintf(result.data(), result.size(), "%s.%06d", text.data(), static_cast<int>(rest));
  return result.data();
}

const char* directionText(Relay::Direction direction) {
  return direction == Relay::Direction::toService ? "toService" : "toClient";
}

NSDictionary jsonOf(const Event& event) {
  NSMutableDictionary result = NSMutableDictionary::dictionary();
  result["time"] = event.time;
  result["connection"] = static_cast<std::int64_t>(event.connection);
  if (event.kind == Event::Kind::opened) {
    result["kind"] = "opened";
    result["client"] = event.client;
    return result;
  }
  if (event.kind == Event::Kind::closed) {
    result["kind"] = "closed";
    result["by"] = event.direction == Relay::Direction::toService ? "client" : "service";
    if (!event.reason.empty()) result["reason"] = NSString::stringWithUTF8(event.reason);
    return result;
  }
  result["direction"] = directionText(event.direction);
  for (const auto& [key, value] : shownFrame(event.frame).pairs()) result.setObject(value, key);
  return result;
}

// Of what may hold what has no form.
std::string jsonText(const NSObject& value) {
  NSError error;
  std::string text = toJSON(value, JSONLayout::compact, &error);
  return text.empty() ? "(" + error.localizedDescription().string() + ")" : text;
}

std::string textOf(const Event& event) {
  const std::string head = styled(Style::dim, clockText(event.time)) + " " +
                           styled(Style::bold, "#" + std::to_string(event.connection)) + " ";
  if (event.kind == Event::Kind::opened) return head + "opened by process " + std::to_string(event.client);
  if (event.kind == Event::Kind::closed) {
    const char* const who = event.direction == Relay::Direction::toService ? "client" : "service";
    return head + std::string("closed: the ") + who + " has gone" +
           (event.reason.empty() ? "" : ", " + harmless(event.reason));
  }
  const NSDictionary frame = shownFrame(event.frame);
  std::string text = head + (event.direction == Relay::Direction::toService ? styled(Style::green, "-> ")
                                                                            : styled(Style::cyan, "<- "));
  text += frame["kind"].stringValue();
  if (!frame["call"].isNil()) text += " " + jsonText(frame["call"]);
  if (!frame["selector"].isNil()) text += " " + harmless(frame["selector"].stringValue());
  for (const NSObject& each : frame["arguments"].as<NSArray>()) text += " " + harmless(jsonText(each));
  if (!frame["value"].isNil()) text += " " + harmless(jsonText(frame["value"]));
  for (const char* const key : {"reason", "notShown"}) {
    if (!frame[key].isNil()) text += ": " + harmless(frame[key].stringValue());
  }
  return text + styled(Style::dim, " (" + bytesText(static_cast<double>(event.frame.bytes)) + ")");
}

}  // namespace

EventPrinter::EventPrinter(bool asJSON) : asJSON_(asJSON), thread_([this] { run(); }) {}

EventPrinter::~EventPrinter() {
  finish();
}

void EventPrinter::add(Event event) {
  const std::size_t bytes = event.frame.frame.size();
  const std::lock_guard lock(mutex_);
  if (isOver_) return;
  if (events_.size() >= kMostEvents || bytes_ + bytes > kMostBytes) {
    ++leftOut_;
    return;
  }
  bytes_ += bytes;
  events_.push_back(std::move(event));
  changed_.notify_one();
}

void EventPrinter::finish() {
  {
    const std::lock_guard lock(mutex_);
    isOver_ = true;
    changed_.notify_one();
  }
  if (thread_.joinable()) thread_.join();
}

bool EventPrinter::isRead() const {
  const std::lock_guard lock(mutex_);
  return isRead_;
}

void EventPrinter::run() {
  std::unique_lock lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return isOver_ || !events_.empty() || leftOut_ > 0; });
    if (events_.empty() && leftOut_ == 0) return;
    std::deque<Event> events;
    events.swap(events_);
    const std::uint64_t leftOut = std::exchange(leftOut_, 0);
    bytes_ = 0;
    lock.unlock();
    bool isRead = true;
    for (const Event& each : events) isRead = isRead && print(each);
    if (leftOut > 0) isRead = isRead && printLeftOut(leftOut);
    events.clear();
    lock.lock();
    isRead_ = isRead_ && isRead;
  }
}

bool EventPrinter::print(const Event& event) const {
  try {
    return asJSON_ ? printLine(jsonText(jsonOf(event))) : printLine(textOf(event));
  } catch (const std::exception& error) {
    say(std::string("an event is not shown: ") + error.what());
    return true;
  }
}

bool EventPrinter::printLeftOut(std::uint64_t count) const {
  if (asJSON_) return printJSON(NSDictionary{{"kind", "leftOut"}, {"events", static_cast<std::int64_t>(count)}});
  return printLine(styled(Style::yellow, "... " + std::to_string(count) + " events are not shown: they came too fast"));
}

}  // namespace velto::ctl
