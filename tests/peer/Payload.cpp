// Payloads between ends.

#include "tests/peer/Payload.h"

#include <cstdint>
#include <vector>

#include "platform/foundation/Foundation.h"

namespace velto::testing {

namespace {

constexpr double kMoment = 1234567890.25;

NSData patternOf(std::size_t length) {
  std::vector<std::uint8_t> bytes(length);
  for (std::size_t index = 0; index < length; ++index)
    bytes[index] = static_cast<std::uint8_t>(index * 31 + index / 257);
  return NSData::dataWithVector(std::move(bytes));
}

}  // namespace

NSDictionary messageOf(const std::string& payload) {
  const std::string word = wordOf(payload);
  const std::string text = textOf(payload);
  if (word == "date")
    return {{"word", word}, {"text", text}, {"extra", NSDate::dateWithTimeIntervalSince1970(kMoment)}};
  if (word == "bytes") return {{"word", word}, {"text", text}, {"extra", patternOf(std::stoul(text))}};
  return {{"word", word}, {"text", text}};
}

std::string payloadOf(const NSDictionary& message) {
  if (message.isNil()) return "nil";
  const std::string payload = message["word"].stringValue() + ":" + message["text"].stringValue();
  return message == messageOf(payload) ? payload : "changed:" + payload;
}

std::string wordOf(const std::string& payload) {
  return payload.substr(0, payload.find(':'));
}

std::string textOf(const std::string& payload) {
  const std::size_t colon = payload.find(':');
  return colon == std::string::npos ? "" : payload.substr(colon + 1);
}

std::string describe(const NSError& error) {
  return "error " + std::to_string(error.code()) + " " + error.localizedDescription().string();
}

}  // namespace velto::testing
