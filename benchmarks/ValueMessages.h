#pragma once

#include "benchmarks/Exchange.h"
#include "platform/foundation/Foundation.h"

namespace velto::benchmarks {

// The messages of the exchange as values.
inline NSDictionary requestOfValues(const Request& request) {
  return {{"operation", kOperation},
          {"identifier", request.number},
          {"sender", kSender},
          {"factor", kFactor},
          {"offset", kOffset},
          {"is urgent", true},
          {"deadline", kDeadline},
          {"terms", NSArray{kTerms[0], kTerms[1], kTerms[2], kTerms[3]}},
          {"payload", NSData::dataWithBytes(request.data.data(), request.data.size())}};
}

inline NSDictionary replyOfValues(double result) {
  return {{"ok", true}, {"result", result}, {"unit", kUnit}};
}

}  // namespace velto::benchmarks
