// The one place that knows libcbor's decoder. Its callbacks only note what they were given, so that no exception and no
// logic ever runs inside the library, and the readers above can pull items one by one.

#include "platform/xpc/wire/ItemReader.h"

#include <utility>

#include <cbor.h>

#include "platform/foundation/UTF8.h"

namespace velto::wire {
namespace {

using Type = Item::Type;

template <Type type, class Number>
void noteNumber(void* context, Number number) {
  auto* const item = static_cast<Item*>(context);
  item->type = type;
  item->number = number;
}

template <Type type>
void noteString(void* context, cbor_data start, std::size_t length) {
  auto* const item = static_cast<Item*>(context);
  item->type = type;
  item->number = length;
  item->start = start;
}

template <class Number>
void noteReal(void* context, Number number) {
  auto* const item = static_cast<Item*>(context);
  item->type = Type::floatingPoint;
  item->real = static_cast<double>(number);
}

template <Type type>
void noteSimple(void* context) {
  static_cast<Item*>(context)->type = type;
}

void noteBool(void* context, bool value) {
  noteNumber<Type::boolean, unsigned>(context, value ? 1 : 0);
}

constexpr cbor_callbacks kCallbacks{
    .uint8 = noteNumber<Type::unsignedInteger, std::uint8_t>,
    .uint16 = noteNumber<Type::unsignedInteger, std::uint16_t>,
    .uint32 = noteNumber<Type::unsignedInteger, std::uint32_t>,
    .uint64 = noteNumber<Type::unsignedInteger, std::uint64_t>,
    .negint64 = noteNumber<Type::negativeInteger, std::uint64_t>,
    .negint32 = noteNumber<Type::negativeInteger, std::uint32_t>,
    .negint16 = noteNumber<Type::negativeInteger, std::uint16_t>,
    .negint8 = noteNumber<Type::negativeInteger, std::uint8_t>,
    .byte_string_start = noteSimple<Type::indefinite>,
    .byte_string = noteString<Type::bytes>,
    .string = noteString<Type::text>,
    .string_start = noteSimple<Type::indefinite>,
    .indef_array_start = noteSimple<Type::indefinite>,
    .array_start = noteNumber<Type::array, std::size_t>,
    .indef_map_start = noteSimple<Type::indefinite>,
    .map_start = noteNumber<Type::map, std::size_t>,
    .tag = noteNumber<Type::tag, std::uint64_t>,
    .float2 = noteReal<float>,
    .float4 = noteReal<float>,
    .float8 = noteReal<double>,
    .undefined = noteSimple<Type::undefined>,
    .null = noteSimple<Type::null>,
    .boolean = noteBool,
    .indef_break = noteSimple<Type::indefinite>,
};

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

}  // namespace

bool ItemReader::read(Item& item) {
  if (readShortTag(item)) return true;
  const cbor_decoder_result result = cbor_stream_decode(bytes_.data() + position_, remaining(), &kCallbacks, &item);
  if (result.status == CBOR_DECODER_NEDATA) {
    return fail("truncated: the item at byte " + std::to_string(position_) + " of " + std::to_string(bytes_.size()) +
                " is not all there");
  }
  if (result.status != CBOR_DECODER_FINISHED) {
    return fail("byte " + std::to_string(bytes_[position_]) + " at " + std::to_string(position_) +
                " starts no item of this protocol");
  }
  if (!check(item, result.read)) return false;
  position_ += result.read;
  return true;
}

bool ItemReader::readShortTag(Item& item) noexcept {
  // Some versions of the library know only a few of the tags that fit into one byte and call the others malformed.
  constexpr std::uint8_t kFirst = 0xC0, kLast = 0xD7;
  if (remaining() == 0 || bytes_[position_] < kFirst || bytes_[position_] > kLast) return false;
  item.type = Type::tag;
  item.number = static_cast<std::uint64_t>(bytes_[position_] - kFirst);
  ++position_;
  return true;
}

bool ItemReader::check(const Item& item, std::size_t length) {
  if (item.type == Type::indefinite) {
    return fail("an item of indefinite length at byte " + std::to_string(position_));
  }
  if (item.type != Type::array && item.type != Type::map) return true;
  // Each element takes a byte at least, each pair two: a count above that is a lie, whatever follows.
  const std::size_t backed = (remaining() - length) / (item.type == Type::map ? 2 : 1);
  if (item.number <= backed) return true;
  return fail("truncated: " + std::to_string(item.number) + " elements are declared at byte " +
              std::to_string(position_) + ", " + std::to_string(backed) + " at most can follow");
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

bool ItemReader::fail(std::string reason) {
  reason_ = std::move(reason);
  return false;
}

}  // namespace velto::wire
