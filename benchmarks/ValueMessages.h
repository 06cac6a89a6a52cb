#pragma once

#include "benchmarks/Exchange.h"
#include "platform/foundation/Foundation.h"

namespace velto::benchmarks {

// The messages of the exchange as values.
inline NSDictionary requestOfValues(const Request& request, const NSData& payload) {
  return {{"operation", kOperation}, {"identifier", request.number},
          {"sender", kSender},       {"factor", kFactor},
          {"offset", kOffset},       {"is urgent", true},
          {"deadline", kDeadline},   {"terms", NSArray{kTerms[0], kTerms[1], kTerms[2], kTerms[3]}},
          {"payload", payload}};
}

// Large data is lent, as it is to the other transports.
inline NSDictionary requestOfValues(const Request& request) {
  constexpr std::size_t kLarge = 4096;
  const auto& bytes = request.data;
  return requestOfValues(request, bytes.size() < kLarge
                                      ? NSData::dataWithBytes(bytes.data(), bytes.size())
                                      : NSData::dataWithBytesNoCopy(bytes.data(), bytes.size(), [] {}));
}

inline NSDictionary replyOfValues(double result) {
  return {{"ok", true}, {"result", result}, {"unit", kUnit}};
}

}  // namespace velto::benchmarks
