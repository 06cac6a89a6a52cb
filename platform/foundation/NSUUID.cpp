// Universally unique identifiers (RFC 9562, version 4), printed in capitals.
#include "platform/foundation/NSUUID.h"

#include <optional>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/PlainBodies.h"
#include "platform/foundation/RandomBytes.h"
#include "platform/foundation/ValueText.h"

namespace velto {
namespace {

using Bytes = NSUUID::Bytes;

constexpr std::size_t kTextLength = 36;

// Whether a hyphen stands before the byte's two digits.
constexpr bool hyphenBefore(std::size_t byte) {
  return byte == 4 || byte == 6 || byte == 8 || byte == 10;
}

int digitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

std::optional<Bytes> parse(std::string_view text) {
  if (text.size() != kTextLength) return std::nullopt;
  Bytes bytes{};
  std::size_t position = 0;
  for (std::size_t index = 0; index < bytes.size(); ++index) {
    if (hyphenBefore(index) && text[position++] != '-') return std::nullopt;
    const int high = digitValue(text[position++]);
    const int low = digitValue(text[position++]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[index] = static_cast<std::uint8_t>(high << 4 | low);
  }
  return bytes;
}

}  // namespace

std::string textOfUUID(const Bytes& bytes) {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string text;
  for (std::size_t index = 0; index < bytes.size(); ++index) {
    if (hyphenBefore(index)) text += '-';
    text += digits[bytes[index] >> 4];
    text += digits[bytes[index] & 0xf];
  }
  return text;
}

}  // namespace velto

using velto::UUIDBody;

Class NSUUID::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSUUID", NSObject::classObject()));
  return made;
}

NSUUID NSUUID::UUID() {
  Bytes bytes{};
  velto::fillWithRandomBytes(bytes.data(), bytes.size());
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0f) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3f) | 0x80);  // the standard's variant
  return UUIDWithBytes(bytes);
}

NSUUID NSUUID::UUIDWithBytes(const Bytes& bytes) {
  return NSUUID(UUIDBody::make(bytes));
}

NSUUID NSUUID::UUIDWithString(const NSString& text) {
  const std::optional<Bytes> bytes = velto::parse(text.view());
  return bytes ? UUIDWithBytes(*bytes) : NSUUID();
}

NSString NSUUID::UUIDString() const {
  return isNil() ? NSString() : NSString(velto::textOfUUID(bytes()));
}

NSUUID::Bytes NSUUID::bytes() const noexcept {
  return isNil() ? Bytes{} : static_cast<const UUIDBody&>(value().body()).bytes();
}
