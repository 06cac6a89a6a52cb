// Heads of CBOR (RFC 8949), as far as this wire uses them.

#include "platform/xpc/wire/ItemReader.h"

#include <bit>
#include <cmath>
#include <limits>
#include <utility>

#include "platform/foundation/UTF8.h"

namespace velto::wire {
namespace {

using Type = Item::Type;

// Items that must follow for this head to be whole.
std::uint64_t itemsWithin(const Item& item) noexcept {
  switch (item.type) {
    case Type::array:
      return item.number;
    case Type::map:
      return 2 * item.number;
    case Type::tag:
      return 1;
    default:
      return 0;
  }
}

// IEEE 754 binary16: a sign, five bits of exponent, ten of mantissa.
double fromHalf(std::uint64_t half) noexcept {
  const auto exponent = static_cast<int>(half >> 10 & 0x1F);
  const auto mantissa = static_cast<double>(half & 0x3FF);
  double value = 0;
  if (exponent == 0) {
    value = std::ldexp(mantissa, -24);
  } else if (exponent < 0x1F) {
    value = std::ldexp(mantissa + 1024, exponent - 25);
  } else {
    value = mantissa == 0 ? std::numeric_limits<double>::infinity() : std::numeric_limits<double>::quiet_NaN();
  }
  return (half & 0x8000) != 0 ? -value : value;
}

}  // namespace

bool ItemReader::readSimple(Item& item, unsigned info) {
  constexpr unsigned kFalse = 20, kTrue = 21, kNull = 22, kUndefined = 23, kHalf = 25, kDouble = 27, kBreak = 31;
  switch (info) {
    case kFalse:
    case kTrue:
      item.type = Type::boolean;
      item.number = info - kFalse;
      ++next_;
      return true;
    case kNull:
    case kUndefined:
      item.type = info == kNull ? Type::null : Type::undefined;
      ++next_;
      return true;
    case kBreak:
      return failHead(0xFF);
    default:
      break;
  }
  if (info < kHalf || info > kDouble) return failHead(0xE0 | info);
  const std::size_t width = std::size_t{2} << (info - kHalf);
  if (remaining() <= width) return failTruncated();
  const std::uint64_t bits = bigEndian(next_ + 1, width);
  item.type = Type::floatingPoint;
  if (info == kHalf) {
    item.real = fromHalf(bits);
  } else if (info == kDouble) {
    item.real = std::bit_cast<double>(bits);
  } else {
    item.real = static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
  }
  next_ += 1 + width;
  return true;
}

bool ItemReader::skip() {
  // With definite lengths alone, how many items are still due tells everything: no stack is needed. The number cannot
  // wrap, as each head adds at most the bytes that are left.
  std::uint64_t due = 1;
  for (Item item; due > 0; --due) {
    if (!read(item)) return false;
    if (item.type == Type::text && !isValidUTF8(item.view())) return fail("a text that is not UTF-8");
    due += itemsWithin(item);
  }
  return true;
}

bool ItemReader::failHead(unsigned first) {
  constexpr unsigned kIndefinite = 31;
  const unsigned major = first >> 5;
  const bool mayBeIndefinite = (major >= 2 && major <= 5) || major == 7;
  if ((first & 0x1F) == kIndefinite && mayBeIndefinite) {
    return fail("an item of indefinite length at byte " + std::to_string(position()));
  }
  return fail("byte " + std::to_string(first) + " at " + std::to_string(position()) +
              " starts no item of this protocol");
}

bool ItemReader::failTruncated() {
  return fail("truncated: the item at byte " + std::to_string(position()) + " of " + std::to_string(end_ - start_) +
              " is not all there");
}

bool ItemReader::failCount(const Item& item, std::size_t backed) {
  return fail("truncated: " + std::to_string(item.number) + " elements are declared at byte " +
              std::to_string(position()) + ", " + std::to_string(backed) + " at most can follow");
}

bool ItemReader::fail(std::string reason) {
  reason_ = std::move(reason);
  return false;
}

}  // namespace velto::wire
