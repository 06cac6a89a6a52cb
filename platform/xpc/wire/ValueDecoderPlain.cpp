// The fast lane of the decoder: nearly everything in a message is a plain object in a container. What is at hand lies
// in variables of one function here; anything unusual, and all that is wrong, is left to the other half, which knows
// what to say of it.
//
// Measured: without it, the exchange of docs/performance.md takes half as many instructions again.

#include <bit>

#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/DataBody.h"
#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/StringBody.h"
#include "platform/foundation/UTF8.h"
#include "platform/xpc/wire/ValueDecoder.h"

namespace velto::wire {
// Reads plain objects one after the other. All of it is inlined into the loops below, so that it lies in registers:
// what is written as two words and read as one soon after would be waited for.
class ValueDecoder::PlainReader {
 public:
  explicit PlainReader(ValueDecoder& decoder) noexcept
      : decoder_(decoder),
        admitted_(decoder.admitted_->plainClasses()),
        next_(decoder.reader_.rest().data()),
        end_(next_ + decoder.reader_.remaining()) {}

  // False when the next object is none that is plain and as it should be; then nothing is read.
  [[gnu::always_inline]] bool read(Value& made) {
    if (next_ == end_) return false;
    const std::uint8_t first = *next_;
    switch (static_cast<Item::Type>(first >> 5)) {
      case Item::Type::unsignedInteger:
      case Item::Type::negativeInteger: {
        std::uint64_t number = 0;
        const std::uint8_t* const after = argument(number);
        if (after == nullptr || number > INT64_MAX || !admits(PlainClass::number)) return false;
        made = Value(Tag::signedInteger, (first & 0x20) == 0 ? number : ~number);
        next_ = after;
        return true;
      }
      case Item::Type::text:
        return readText(made);
      case Item::Type::bytes:
        return readBytes(made);
      case kSimple:
        return readSimple(first, made);
      default:
        return false;
    }
  }

  // Whether the next object is a container, or anything else that has a tag.
  static bool isNever(const ItemReader& reader) noexcept {
    if (reader.remaining() == 0) return true;
    const auto type = static_cast<Item::Type>(reader.rest().front() >> 5);
    return type == Item::Type::array || type == Item::Type::map || type == Item::Type::tag;
  }

  // What the objects read cost to compare beyond what each does.
  std::uint64_t takeWork() noexcept { return std::exchange(work_, 0); }
  const std::uint8_t* position() const noexcept { return next_; }

 private:
  static constexpr auto kSimple = static_cast<Item::Type>(7);

  bool admits(PlainClass plain) const noexcept { return (admitted_ >> static_cast<unsigned>(plain) & 1u) != 0; }

  // The argument of the head, and the place behind it; null when the head is not whole.
  [[gnu::always_inline]] const std::uint8_t* argument(std::uint64_t& number) const noexcept {
    constexpr unsigned kOneByte = 24, kEightBytes = 27;
    const unsigned info = *next_ & 0x1F;
    if (info < kOneByte) {
      number = info;
      return next_ + 1;
    }
    if (info > kEightBytes) return nullptr;
    const std::size_t width = std::size_t{1} << (info - kOneByte);
    if (static_cast<std::size_t>(end_ - next_) <= width) return nullptr;
    number = bigEndian(next_ + 1, width);
    return next_ + 1 + width;
  }

  [[gnu::always_inline]] bool readText(Value& made) {
    std::uint64_t length = 0;
    const std::uint8_t* const start = argument(length);
    if (start == nullptr || length > static_cast<std::size_t>(end_ - start) || !admits(PlainClass::string)) {
      return false;
    }
    const std::string_view text(reinterpret_cast<const char*>(start), length);
    if (length > Value::kMaximumText) {
      if (!isValidUTF8(text)) return false;
      made = StringBody::make(text, decoder_.region());
      work_ += length / kBytesPerObject;
    } else {
      // Whole words where the frame has them.
      made = end_ - start >= 16 ? Value::ofTextInWords(text.data(), length) : Value::ofShortText(text);
      if (!made.isASCII() && !isValidUTF8(text)) return false;
    }
    next_ = start + length;
    return true;
  }

  [[gnu::always_inline]] bool readBytes(Value& made) {
    std::uint64_t length = 0;
    const std::uint8_t* const start = argument(length);
    if (start == nullptr || length > static_cast<std::size_t>(end_ - start) || !admits(PlainClass::data)) return false;
    made = decoder_.data({start, length});
    work_ += length / kBytesPerObject;
    next_ = start + length;
    return true;
  }

  [[gnu::always_inline]] bool readSimple(std::uint8_t first, Value& made) noexcept {
    constexpr std::uint8_t kFalse = 0xF4, kTrue = 0xF5, kNull = 0xF6, kDouble = 0xFB;
    if (first == kDouble && end_ - next_ > 8 && admits(PlainClass::number)) {
      made = Value(Tag::floatingPoint, bigEndian(next_ + 1, 8));
      next_ += 9;
    } else if ((first == kFalse || first == kTrue) && admits(PlainClass::number)) {
      made = Value(Tag::boolean, first - kFalse);
      ++next_;
    } else if (first == kNull && admits(PlainClass::null)) {
      made = Value(Tag::null, 0);
      ++next_;
    } else {
      return false;
    }
    return true;
  }

  ValueDecoder& decoder_;
  const std::uint32_t admitted_;
  const std::uint8_t* next_;
  const std::uint8_t* const end_;
  std::uint64_t work_ = 0;
};

bool ValueDecoder::readPlainOnes() {
  if (PlainReader::isNever(reader_)) return false;
  Level& level = top();
  const std::uint64_t before = level.itemsLeft;
  switch (level.kind) {
    case Kind::array:
      readElements(level);
      break;
    case Kind::set:
      readMembers(level);
      break;
    case Kind::dictionary:
    case Kind::error:
      readPairs(level);
      break;
    case Kind::coded:
      return false;
  }
  objects_ += before - level.itemsLeft;
  due_ -= before - level.itemsLeft;
  return level.itemsLeft == 0;
}

void ValueDecoder::readElements(Level& level) {
  PlainReader reader(*this);
  ArrayBody& array = *level.array;
  std::uint64_t left = level.itemsLeft;
  for (Value made; left > 0 && reader.read(made); --left) array.add(made);
  level.cost.addPlain(0, level.itemsLeft - left + reader.takeWork());
  level.itemsLeft = left;
  reader_.goOnFrom(reader.position());
}

void ValueDecoder::readMembers(Level& level) {
  PlainReader reader(*this);
  KeyedBody& set = *level.keyed;
  std::uint64_t left = level.itemsLeft;
  for (Value made; left > 0 && reader.read(made); --left) {
    if (!set.addMember(made, level.keys)) dropTwice(level, made);
  }
  level.cost.addPlain(level.itemsLeft - left + reader.takeWork(), 0);
  level.itemsLeft = left;
  reader_.goOnFrom(reader.position());
}

void ValueDecoder::readPairs(Level& level) {
  PlainReader reader(*this);
  KeyedBody& dictionary = *level.keyed;
  TextFilter keys = level.keys;
  std::uint64_t left = level.itemsLeft;
  std::uint64_t longKeys = 0, longValues = 0;
  Value key = level.key, value;
  while (left > 0) {
    if (left % 2 == 0) {
      if (!reader.read(key)) break;
      --left;
      if (key.isCounted()) {
        // In the level, too, since it is to be let go of if there is no memory for what comes.
        level.key = key;
        longKeys += reader.takeWork();
      }
    }
    if (!reader.read(value)) break;
    if (value.isCounted()) longValues += reader.takeWork();
    // Comparing a key may raise if it is of a class of one's own: then both are let go of.
    if (key.isCounted()) made_ = value;
    if (!dictionary.addPair(key, value, keys)) dropTwice(level, value);
    if (key.isCounted()) made_ = level.key = Value();
    --left;
  }
  level.key = left % 2 == 0 ? Value() : key;
  level.keys = keys;
  // A key was due whenever the number of items left was even.
  const std::uint64_t keysRead = level.itemsLeft / 2 - left / 2;
  level.cost.addPlain(keysRead + longKeys, level.itemsLeft - left - keysRead + longValues);
  level.itemsLeft = left;
  reader_.goOnFrom(reader.position());
}

// What came twice breaks the protocol, once all of the container has been read.
void ValueDecoder::dropTwice(Level& level, Value made) noexcept {
  level.hasTwice = true;
  if (region_ != nullptr) return;
  made.release();
  level.key.release();
}

}  // namespace velto::wire
