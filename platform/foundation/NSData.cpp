// Data: the handles. (Mapping a descriptor is in NSDataMapping.cpp.)
#include "platform/foundation/NSData.h"

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/DataBody.h"
#include "platform/foundation/Walk.h"

using velto::DataBody;
using Mutability = DataBody::Mutability;

namespace {

const DataBody* bodyOf(const NSData& data) {
  return static_cast<const DataBody*>(data.body());
}
DataBody* changing(const NSMutableData& data) {
  return static_cast<DataBody*>(data.body());
}

std::vector<std::uint8_t> vectorOf(const void* bytes, std::size_t length) {
  if (bytes == nullptr && length > 0) velto::raiseInvalidArgument("bytes at a null pointer");
  const auto* first = static_cast<const std::uint8_t*>(bytes);
  return {first, first + length};
}

}  // namespace

NSData::NSData(const std::vector<std::uint8_t>& bytes) : NSObject(new DataBody(bytes, Mutability::immutable)) {}

Class NSData::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSData", NSObject::classObject()));
  return made;
}

NSData NSData::dataWithBytes(const void* bytes, std::size_t length) {
  return dataWithVector(vectorOf(bytes, length));
}

NSData NSData::dataWithVector(std::vector<std::uint8_t> bytes) {
  return NSData(new DataBody(std::move(bytes), Mutability::immutable));
}

NSData NSData::dataWithBytesNoCopy(const void* bytes, std::size_t length, std::function<void()> deleter) {
  if (bytes == nullptr && length > 0) velto::raiseInvalidArgument("bytes at a null pointer");
  return NSData(new DataBody(bytes, length, std::move(deleter)));
}

const std::uint8_t* NSData::bytes() const noexcept {
  return isNil() ? nullptr : bodyOf(*this)->bytes();
}

std::size_t NSData::length() const noexcept {
  return isNil() ? 0 : bodyOf(*this)->length();
}

std::string_view NSData::view() const noexcept {
  return {reinterpret_cast<const char*>(bytes()), length()};
}

Class NSMutableData::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSMutableData", NSData::classObject()));
  return made;
}

NSMutableData NSMutableData::data() {
  return dataWithData(nil);
}

NSMutableData NSMutableData::dataWithData(const NSData& bytes) {
  return NSMutableData(new DataBody(vectorOf(bytes.bytes(), bytes.length()), Mutability::growing));
}

void NSMutableData::appendBytes(const void* bytes, std::size_t length) {
  if (isNil()) return;
  // A copy first: the bytes may be this very data's, and growing moves those.
  const std::vector<std::uint8_t> added = vectorOf(bytes, length);
  std::vector<std::uint8_t>& owned = changing(*this)->owned();
  owned.insert(owned.end(), added.begin(), added.end());
}

void NSMutableData::setLength(std::size_t length) {
  if (!isNil()) changing(*this)->owned().resize(length);
}

std::uint8_t* NSMutableData::mutableBytes() noexcept {
  return isNil() ? nullptr : changing(*this)->owned().data();
}
