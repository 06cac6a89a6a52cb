// The process's own hash key. It is drawn once, at the first hash, so that no peer can prepare keys that all fall into
// one place of a dictionary.
#include "platform/foundation/SipHash.h"

#include "platform/foundation/RandomBytes.h"
#include "platform/foundation/Value.h"

namespace velto {
namespace {

SipHashKey drawKey() noexcept {
  SipHashKey key{};
  fillWithRandomBytes(&key, sizeof key);
  return key;
}

const SipHashKey& processKey() noexcept {
  static const SipHashKey key = drawKey();
  return key;
}

}  // namespace

std::size_t hashOfBytes(const void* bytes, std::size_t length) noexcept {
  return sipHash13(processKey(), bytes, length);
}

std::size_t hashOfWords(std::uint64_t low, std::uint64_t high) noexcept {
  return SipHash<1, 3>(processKey())(low, high);
}

std::size_t hashOfText(std::string_view text) noexcept {
  if (text.size() > Value::kMaximumText) return hashOfBytes(text.data(), text.size());
  const Value value = Value::ofShortText(text);
  return hashOfWords(value.bits(), value.high());
}

}  // namespace velto
