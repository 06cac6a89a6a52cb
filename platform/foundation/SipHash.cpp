// The process's own hash key. It is drawn once, at the first hash, so that no peer can prepare keys that all fall into
// one place of a dictionary.
#include "platform/foundation/SipHash.h"

#include "platform/foundation/RandomBytes.h"

namespace velto {
namespace {

SipHashKey drawKey() noexcept {
  SipHashKey key{};
  fillWithRandomBytes(&key, sizeof key);
  return key;
}

}  // namespace

std::size_t hashOfBytes(const void* bytes, std::size_t length) noexcept {
  static const SipHashKey key = drawKey();
  return sipHash13(key, bytes, length);
}

}  // namespace velto
