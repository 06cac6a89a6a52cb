#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <cbor.h>

#include "platform/xpc/wire/ItemReader.h"

namespace velto::wire::testing {

// What libcbor says of the head that some bytes begin with.
struct Judgement {
  enum class Verdict { whole, truncated, malformed };

  Verdict verdict = Verdict::malformed;
  Item item;
  std::size_t length = 0;
};

namespace detail {

template <Item::Type type, class Number>
void noteNumber(void* context, Number number) {
  auto* const item = static_cast<Item*>(context);
  item->type = type;
  item->number = number;
}

template <Item::Type type>
void noteString(void* context, cbor_data start, std::size_t length) {
  auto* const item = static_cast<Item*>(context);
  item->type = type;
  item->number = length;
  item->start = start;
}

template <class Number>
void noteReal(void* context, Number number) {
  auto* const item = static_cast<Item*>(context);
  item->type = Item::Type::floatingPoint;
  item->real = static_cast<double>(number);
}

template <Item::Type type>
void noteSimple(void* context) {
  static_cast<Item*>(context)->type = type;
}

inline void noteBool(void* context, bool value) {
  noteNumber<Item::Type::boolean, unsigned>(context, value ? 1 : 0);
}

inline const cbor_callbacks& callbacks() {
  using Type = Item::Type;
  static const cbor_callbacks made = [] {
    cbor_callbacks all = cbor_empty_callbacks;
    all.uint8 = noteNumber<Type::unsignedInteger, std::uint8_t>;
    all.uint16 = noteNumber<Type::unsignedInteger, std::uint16_t>;
    all.uint32 = noteNumber<Type::unsignedInteger, std::uint32_t>;
    all.uint64 = noteNumber<Type::unsignedInteger, std::uint64_t>;
    all.negint8 = noteNumber<Type::negativeInteger, std::uint8_t>;
    all.negint16 = noteNumber<Type::negativeInteger, std::uint16_t>;
    all.negint32 = noteNumber<Type::negativeInteger, std::uint32_t>;
    all.negint64 = noteNumber<Type::negativeInteger, std::uint64_t>;
    all.byte_string = noteString<Type::bytes>;
    all.byte_string_start = noteSimple<Type::indefinite>;
    all.string = noteString<Type::text>;
    all.string_start = noteSimple<Type::indefinite>;
    all.array_start = noteNumber<Type::array, std::size_t>;
    all.indef_array_start = noteSimple<Type::indefinite>;
    all.map_start = noteNumber<Type::map, std::size_t>;
    all.indef_map_start = noteSimple<Type::indefinite>;
    all.tag = noteNumber<Type::tag, std::uint64_t>;
    all.float2 = noteReal<float>;
    all.float4 = noteReal<float>;
    all.float8 = noteReal<double>;
    all.undefined = noteSimple<Type::undefined>;
    all.null = noteSimple<Type::null>;
    all.boolean = noteBool;
    all.indef_break = noteSimple<Type::indefinite>;
    return all;
  }();
  return made;
}

}  // namespace detail

inline Judgement judge(std::span<const std::uint8_t> bytes) {
  Judgement judgement;
  // Some versions know only a few of the tags that fit into one byte, and call the others malformed.
  if (!bytes.empty() && bytes[0] >= 0xC0 && bytes[0] <= 0xD7) {
    judgement.item.type = Item::Type::tag;
    judgement.item.number = bytes[0] - 0xC0U;
    judgement.length = 1;
    judgement.verdict = Judgement::Verdict::whole;
    return judgement;
  }
  const cbor_decoder_result result =
      cbor_stream_decode(bytes.data(), bytes.size(), &detail::callbacks(), &judgement.item);
  judgement.length = result.read;
  if (result.status == CBOR_DECODER_FINISHED) judgement.verdict = Judgement::Verdict::whole;
  if (result.status == CBOR_DECODER_NEDATA) judgement.verdict = Judgement::Verdict::truncated;
  return judgement;
}

// Empty if the reader takes the next head as libcbor does, else what differs. On success both are behind it.
inline const char* whyNotAsJudged(ItemReader& reader, std::span<const std::uint8_t> bytes) {
  const std::span<const std::uint8_t> rest = bytes.subspan(reader.position());
  const Judgement judgement = judge(rest);
  const std::size_t before = reader.position();
  const Item& judged = judgement.item;
  const bool isCount = judged.type == Item::Type::array || judged.type == Item::Type::map;
  bool isWanted = judgement.verdict == Judgement::Verdict::whole && judged.type != Item::Type::indefinite;
  if (isWanted && isCount) {
    isWanted = judged.number <= (rest.size() - judgement.length) / (judged.type == Item::Type::map ? 2 : 1);
  }
  Item item;
  if (reader.read(item) != isWanted) return isWanted ? "refuses what is sound" : "takes what is broken";
  if (!isWanted) return reader.position() == before ? "" : "consumes what is broken";
  if (reader.position() - before != judgement.length) return "takes another length";
  if (item.type != judged.type) return "takes it for another type";
  const bool isReal = item.type == Item::Type::floatingPoint;
  if (isReal) {
    const bool areBothNoNumbers = item.real != item.real && judged.real != judged.real;
    return item.real == judged.real || areBothNoNumbers ? "" : "reads another number";
  }
  const bool isSimple = item.type == Item::Type::null || item.type == Item::Type::undefined;
  if (!isSimple && item.number != judged.number) return "reads another number";
  const bool isString = item.type == Item::Type::text || item.type == Item::Type::bytes;
  return isString && item.start != judged.start ? "finds the bytes elsewhere" : "";
}

}  // namespace velto::wire::testing
