#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "platform/foundation/Export.h"

namespace velto {

class Region;

// What a handle holds. Above `object`, and only there, the handle points to a counted body.
enum class Tag : std::uint8_t {
  nothing = 0,  // nil, a name that a program may have as a macro
  null,
  boolean,
  signedInteger,
  unsignedInteger,
  floatingPoint,
  text = 0x10,    // in the handle itself; the lower four bits are its length
  object = 0x80,  // a body of a class of its own: an ObjectBody
  string,
  mutableString,
  array,
  mutableArray,
  dictionary,
  mutableDictionary,
  set,
  mutableSet,
  data,
  mutableData,
  date,
  uuid,
  url,
  error,
};

// Takes one off a count of references; whether nobody else has one. The only one there is needs no locked step: nobody
// can come by another.
inline bool isLastReference(std::atomic<std::uint64_t>& counter) noexcept {
  return counter.load(std::memory_order_acquire) == 1 || counter.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

// The head of everything that handles point to: a reference count, or the region that the body lies in, whose count is
// then that of all its bodies. No virtual functions: the tag says what the body is.
class VELTO_EXPORT Body {
 public:
  Body(const Body&) = delete;
  Body& operator=(const Body&) = delete;

  Tag tag() const noexcept { return tag_; }
  bool isInRegion() const noexcept { return isInRegion_; }

  void retain() const noexcept { counter().fetch_add(1, std::memory_order_relaxed); }
  void release() const noexcept {
    if (isLastReference(counter())) destroy(*this);
  }

 protected:
  Body(Tag tag, std::uint64_t references) noexcept : references_(references), tag_(tag), isInRegion_(false) {}
  // With one reference; or in a region, whose count is the first thing in it.
  Body(Tag tag, Region* region) noexcept
      : references_(region == nullptr ? 1 : reinterpret_cast<std::uintptr_t>(region)),
        tag_(tag),
        isInRegion_(region != nullptr) {}
  ~Body() = default;

 private:
  friend class Demolition;

  std::atomic<std::uint64_t>& counter() const noexcept {
    if (!isInRegion_) return references_;
    return *std::bit_cast<std::atomic<std::uint64_t>*>(references_.load(std::memory_order_relaxed));
  }
  static void destroy(const Body& body) noexcept;

  // Of a body on the heap that waits for its destruction: the next one.
  mutable std::atomic<std::uint64_t> references_;
  const Tag tag_;
  const bool isInRegion_;
};

// The two words of a handle, without an owner: nil is all zero, the tag is the last byte.
class Value {
 public:
  static constexpr std::size_t kMaximumText = 14;

  constexpr Value() noexcept = default;
  constexpr Value(Tag tag, std::uint64_t bits) noexcept : low_(bits), high_(std::uint64_t{to(tag)} << kTagShift) {}
  explicit Value(const Body& body) noexcept : Value(body.tag(), reinterpret_cast<std::uintptr_t>(&body)) {}
  // A text of at most kMaximumText bytes. For literals both words are constants.
  [[gnu::always_inline]] static constexpr Value ofText(const char* text, std::size_t length) noexcept {
    return {wordOf(text, length, std::make_index_sequence<8>()),
            wordOf(text + 8, length > 8 ? length - 8 : 0, std::make_index_sequence<6>()) |
                (std::uint64_t{to(Tag::text)} + length) << kTagShift};
  }
  static Value ofShortText(std::string_view text) noexcept;

  // The same of one whose two words can be read whole.
  static Value ofTextInWords(const char* text, std::size_t length) noexcept;

  constexpr Tag tag() const noexcept {
    const auto tag = static_cast<std::uint8_t>(high_ >> kTagShift);
    return (tag & 0xF0) == to(Tag::text) ? Tag::text : static_cast<Tag>(tag);
  }
  constexpr bool isNil() const noexcept { return high_ == 0; }
  constexpr bool isCounted() const noexcept { return static_cast<std::int64_t>(high_) < 0; }
  constexpr bool isText() const noexcept { return (high_ >> (kTagShift + 4)) == to(Tag::text) >> 4; }
  constexpr std::uint64_t bits() const noexcept { return low_; }
  constexpr std::uint64_t high() const noexcept { return high_; }
  const Body& body() const noexcept { return *std::bit_cast<const Body*>(low_); }
  Body& body() noexcept { return *std::bit_cast<Body*>(low_); }

  // The same, word by word: what was written so a moment ago would be waited for if both were read at once.
  [[gnu::always_inline]] Value inWords() const noexcept {
    std::uint64_t low = low_, high = high_;
    asm("" : "+r"(low), "+r"(high));
    return {low, high};
  }

  // Of a text in the handle: it lies in this very object, and ends with a NUL.
  const char* text() const noexcept { return reinterpret_cast<const char*>(this); }
  constexpr std::size_t textLength() const noexcept { return (high_ >> kTagShift) & 0x0F; }
  // Whether all bytes of a text in the handle are ASCII.
  constexpr bool isASCII() const noexcept { return ((low_ | (high_ & 0x00FFFFFFFFFFFFFF)) & 0x8080808080808080) == 0; }

  void retain() const noexcept {
    if (isCounted()) body().retain();
  }
  void release() const noexcept {
    if (isCounted()) body().release();
  }

  friend constexpr bool operator==(const Value& left, const Value& right) noexcept = default;

 private:
  static constexpr int kTagShift = 56;
  static_assert(std::endian::native == std::endian::little, "the tag is the last byte");

  constexpr Value(std::uint64_t low, std::uint64_t high) noexcept : low_(low), high_(high) {}
  static constexpr std::uint8_t to(Tag tag) noexcept { return static_cast<std::uint8_t>(tag); }
  template <std::size_t... kIndex>
  [[gnu::always_inline]] static constexpr std::uint64_t wordOf(const char* text, std::size_t length,
                                                               std::index_sequence<kIndex...>) noexcept {
    return (... | (kIndex < length ? std::uint64_t{static_cast<unsigned char>(text[kIndex])} << (8 * kIndex) : 0));
  }

  std::uint64_t low_ = 0;
  std::uint64_t high_ = 0;
};

inline Value Value::ofShortText(std::string_view text) noexcept {
  const char* bytes = text.data();
  const std::size_t length = text.size();
  const auto load = [](const char* from, auto word) {
    __builtin_memcpy(&word, from, sizeof word);
    return std::uint64_t{word};
  };
  const std::uint64_t tag = (std::uint64_t{to(Tag::text)} + length) << kTagShift;
  // Two loads that overlap, instead of one for each byte.
  if (length > 8) {
    return {load(bytes, std::uint64_t{}), load(bytes + length - 8, std::uint64_t{}) >> (8 * (16 - length)) | tag};
  }
  if (length == 8) return {load(bytes, std::uint64_t{}), tag};
  if (length >= 4) {
    return {load(bytes, std::uint32_t{}) | load(bytes + length - 4, std::uint32_t{}) << (8 * (length - 4)), tag};
  }
  if (length == 0) return {0, tag};
  const std::uint64_t first = static_cast<unsigned char>(bytes[0]);
  const std::uint64_t middle = static_cast<unsigned char>(bytes[length / 2]);
  const std::uint64_t last = static_cast<unsigned char>(bytes[length - 1]);
  return {first | middle << (8 * (length / 2)) | last << (8 * (length - 1)), tag};
}

inline Value Value::ofTextInWords(const char* text, std::size_t length) noexcept {
  std::uint64_t low = 0, high = 0;
  __builtin_memcpy(&low, text, sizeof low);
  __builtin_memcpy(&high, text + sizeof low, sizeof high);
  const std::uint64_t tag = (std::uint64_t{to(Tag::text)} + length) << kTagShift;
  if (length > 8) return {low, (high & (~std::uint64_t{0} >> (8 * (16 - length)))) | tag};
  return {length == 0 ? 0 : low & (~std::uint64_t{0} >> (8 * (8 - length))), tag};
}

}  // namespace velto
