// Data: the handles. (Mapping a descriptor is in NSDataMapping.cpp.)
#include "platform/foundation/NSData.h"

#include <algorithm>
#include <memory>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/DataBody.h"
#include "platform/foundation/ValueText.h"
#include "platform/foundation/Walk.h"

using velto::DataBody;
using velto::MutableDataBody;
using velto::Value;

namespace {

// Enough to recognise data by; the length tells the rest.
constexpr std::size_t kBytesDescribed = 16;

std::vector<std::uint8_t>& changing(const NSMutableData& data) {
  return const_cast<MutableDataBody&>(static_cast<const MutableDataBody&>(data.value().body())).bytes();
}

std::span<const std::uint8_t> spanOf(const void* bytes, std::size_t length) {
  if (bytes == nullptr && length > 0) velto::raiseInvalidArgument("bytes at a null pointer");
  return {static_cast<const std::uint8_t*>(bytes), length};
}

std::vector<std::uint8_t> vectorOf(std::span<const std::uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

}  // namespace

std::string velto::textOfData(std::span<const std::uint8_t> bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text = "{length = " + std::to_string(bytes.size());
  if (!bytes.empty()) text += ", bytes = 0x";
  for (const std::uint8_t each : bytes.first(std::min(bytes.size(), kBytesDescribed))) {
    text += digits[each >> 4];
    text += digits[each & 0xf];
  }
  return text + (bytes.size() > kBytesDescribed ? "…}" : "}");
}

NSData::NSData(const std::vector<std::uint8_t>& bytes) : NSObject(DataBody::copy(bytes)) {}

Class NSData::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSData", NSObject::classObject()));
  return made;
}

NSData NSData::dataWithBytes(const void* bytes, std::size_t length) {
  return NSData(DataBody::copy(spanOf(bytes, length)));
}

NSData NSData::dataWithVector(std::vector<std::uint8_t> bytes) {
  const std::span<const std::uint8_t> place = bytes;
  return NSData(DataBody::borrow(place.data(), place.size(), [kept = std::move(bytes)] {}));
}

NSData NSData::dataWithBytesNoCopy(const void* bytes, std::size_t length, std::function<void()> deleter) {
  return NSData(DataBody::lend(spanOf(bytes, length).data(), length, std::move(deleter)));
}

const std::uint8_t* NSData::bytes() const noexcept {
  return velto::bytesOf(value()).data();
}

std::size_t NSData::length() const noexcept {
  return velto::bytesOf(value()).size();
}

std::string_view NSData::view() const noexcept {
  return velto::viewOf(velto::bytesOf(value()));
}

Class NSMutableData::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSMutableData", NSData::classObject()));
  return made;
}

NSMutableData NSMutableData::data() {
  return dataWithData(nil);
}

NSMutableData NSMutableData::dataWithData(const NSData& bytes) {
  return NSMutableData(Value(*new MutableDataBody(vectorOf(bytes.span()))));
}

void NSMutableData::appendBytes(const void* bytes, std::size_t length) {
  if (isNil()) return;
  // A copy first: the bytes may be this very data's, and growing moves those.
  const std::vector<std::uint8_t> added = vectorOf(spanOf(bytes, length));
  std::vector<std::uint8_t>& owned = changing(*this);
  owned.insert(owned.end(), added.begin(), added.end());
}

void NSMutableData::setLength(std::size_t length) {
  if (!isNil()) changing(*this).resize(length);
}

std::uint8_t* NSMutableData::mutableBytes() noexcept {
  return isNil() ? nullptr : changing(*this).data();
}
