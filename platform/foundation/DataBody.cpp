// What data holds: whose bytes they are is settled when it is made, and nobody who reads them can tell.
#include "platform/foundation/DataBody.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "platform/foundation/Class.h"
#include "platform/foundation/NSData.h"
#include "platform/foundation/SipHash.h"
#include "platform/foundation/Walk.h"

namespace velto {
namespace {

// Enough to recognise data by; the length tells the rest.
constexpr std::size_t kBytesDescribed = 16;

std::string_view viewOf(const DataBody& data) {
  return {reinterpret_cast<const char*>(data.bytes()), data.length()};
}

}  // namespace

DataBody::DataBody(std::vector<std::uint8_t> owned, Mutability mutability)
    : mutability_(mutability), owned_(std::move(owned)) {}

DataBody::DataBody(const void* borrowed, std::size_t length, std::function<void()> deleter)
    : mutability_(Mutability::immutable),
      borrowed_(static_cast<const std::uint8_t*>(borrowed)),
      length_(length),
      deleter_(deleter ? std::move(deleter) : [] {}) {}

DataBody::~DataBody() {
  if (deleter_) deleter_();
}

const ClassBody& DataBody::classBody() const {
  return mutability_ == Mutability::growing ? classBodyOf<NSMutableData>() : classBodyOf<NSData>();
}

bool DataBody::isEqual(const ObjectBody& other, WalkBound&) const {
  const auto* data = bodyAs<DataBody>(&other);
  return data != nullptr && viewOf(*data) == viewOf(*this);
}

std::size_t DataBody::hash() const {
  return hashOfBytes(bytes(), length());
}

void DataBody::describe(std::string& out, WalkBound&) const {
  static constexpr char digits[] = "0123456789abcdef";
  out += "{length = " + std::to_string(length());
  if (length() > 0) out += ", bytes = 0x";
  for (std::size_t index = 0; index < std::min(length(), kBytesDescribed); ++index) {
    out += digits[bytes()[index] >> 4];
    out += digits[bytes()[index] & 0xf];
  }
  out += length() > kBytesDescribed ? "…}" : "}";
}

}  // namespace velto
