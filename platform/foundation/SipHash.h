#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace velto {

struct SipHashKey {
  std::uint64_t low;
  std::uint64_t high;
};

// SipHash with a given number of rounds per word and at the end: a keyed hash whose collisions cannot be found by
// someone who does not know the key.
template <int kCompressionRounds, int kFinalRounds>
class SipHash {
 public:
  explicit SipHash(SipHashKey key) noexcept
      : v0_(key.low ^ 0x736f6d6570736575),
        v1_(key.high ^ 0x646f72616e646f6d),
        v2_(key.low ^ 0x6c7967656e657261),
        v3_(key.high ^ 0x7465646279746573) {}

  std::uint64_t operator()(const void* bytes, std::size_t length) noexcept {
    const auto* next = static_cast<const unsigned char*>(bytes);
    for (std::size_t left = length / 8; left > 0; --left, next += 8) mix(word(next, 8));
    return finish(word(next, length % 8) | (std::uint64_t{length} << 56));
  }
  // Of sixteen bytes, as two words.
  std::uint64_t operator()(std::uint64_t low, std::uint64_t high) noexcept {
    mix(low);
    mix(high);
    return finish(std::uint64_t{16} << 56);
  }

 private:
  std::uint64_t finish(std::uint64_t last) noexcept {
    mix(last);
    v2_ ^= 0xff;
    rounds<kFinalRounds>();
    return v0_ ^ v1_ ^ v2_ ^ v3_;
  }

  static std::uint64_t word(const unsigned char* bytes, std::size_t length) noexcept {
    static_assert(std::endian::native == std::endian::little, "words are read in the byte order of the machine");
    std::uint64_t result = 0;
    if (length > 0) std::memcpy(&result, bytes, length);
    return result;
  }

  void mix(std::uint64_t value) noexcept {
    v3_ ^= value;
    rounds<kCompressionRounds>();
    v0_ ^= value;
  }

  template <int kRounds>
  void rounds() noexcept {
    for (int round = 0; round < kRounds; ++round) {
      v0_ += v1_;
      v2_ += v3_;
      v1_ = std::rotl(v1_, 13) ^ v0_;
      v3_ = std::rotl(v3_, 16) ^ v2_;
      v0_ = std::rotl(v0_, 32);
      v2_ += v1_;
      v0_ += v3_;
      v1_ = std::rotl(v1_, 17) ^ v2_;
      v3_ = std::rotl(v3_, 21) ^ v0_;
      v2_ = std::rotl(v2_, 32);
    }
  }

  std::uint64_t v0_, v1_, v2_, v3_;
};

inline std::uint64_t sipHash13(SipHashKey key, const void* bytes, std::size_t length) noexcept {
  return SipHash<1, 3>(key)(bytes, length);
}

// The hash of bytes that a peer may have chosen: SipHash-1-3 with a key that this process drew for itself.
std::size_t hashOfBytes(const void* bytes, std::size_t length) noexcept;
// The same of two words.
std::size_t hashOfWords(std::uint64_t low, std::uint64_t high) noexcept;
// A short text has the hash of the handle that it would lie in, wherever it lies.
std::size_t hashOfText(std::string_view text) noexcept;

}  // namespace velto
