#include "calls/Terms.h"

#include <utility>

#include "platform/foundation/Foundation.h"

namespace velto::calls {

namespace {

constexpr char kTimeout[] = "timeout";
constexpr char kStream[] = "stream";
constexpr char kItems[] = "items";
constexpr char kReply[] = "reply";
constexpr char kError[] = "error";
constexpr char kCode[] = "code";

// What an end may say of another.
Failure failureIn(std::int64_t number) {
  for (const Failure each :
       {Failure::refused, Failure::dropped, Failure::timedOut, Failure::cancelled, Failure::overLimit}) {
    if (number == static_cast<std::int64_t>(each)) return each;
  }
  return Failure::failed;
}

}  // namespace

NSDictionary dictionaryOf(const Terms& terms) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionary();
  if (terms.timeout) dictionary[kTimeout] = static_cast<std::int64_t>(terms.timeout->count());
  if (terms.streams) dictionary[kStream] = true;
  return dictionary;
}

Terms termsIn(const NSDictionary& dictionary) {
  Terms terms;
  const auto nanoseconds = dictionary[kTimeout].to<std::int64_t>();
  if (nanoseconds && *nanoseconds >= 0) terms.timeout = std::chrono::nanoseconds(*nanoseconds);
  terms.streams = dictionary[kStream].boolValue();
  return terms;
}

NSDictionary outcomeOf(const Outcome<NSDictionary>& outcome, std::optional<std::uint64_t> items) {
  NSMutableDictionary dictionary = NSMutableDictionary::dictionary();
  if (outcome) {
    dictionary[kReply] = *outcome;
  } else {
    const CallError& error = outcome.error();
    dictionary[kError] = NSArray{static_cast<std::int64_t>(error.failure()), error.code(), error.text()};
  }
  if (items) dictionary[kItems] = *items;
  return dictionary;
}

std::optional<std::uint64_t> itemsIn(const NSDictionary& outcome) {
  const auto items = outcome[kItems].to<std::uint64_t>();
  return items ? std::optional(*items) : std::nullopt;
}

Outcome<NSDictionary> outcomeIn(const NSDictionary& outcome) {
  const NSObject error = outcome[kError];
  if (error.isNil()) return outcome[kReply].as<NSDictionary>();
  return CallError(failureIn(error[0].integerValue()), error[2].stringValue(), true, error[1].integerValue());
}

NSDictionary replyOf(const CallError& error) {
  return {{kError, error.text()}, {kCode, error.code()}};
}

}  // namespace velto::calls
