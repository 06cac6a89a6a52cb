#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace velto::wire {

// Appends items of CBOR to a vector, each in its shortest form (a double always in eight bytes). The vector is kept
// longer than what is written, so that a small item costs no growth; finish() cuts it.
class ItemWriter {
 public:
  explicit ItemWriter(std::vector<std::uint8_t>& bytes) : bytes_(bytes) {}

  void addUnsigned(std::uint64_t value);
  void addSigned(std::int64_t value);
  void addDouble(double value);
  void addBool(bool value);
  void addNull();
  void addUndefined();
  void addText(std::string_view text);
  void addBytes(std::span<const std::uint8_t> bytes);
  void addArray(std::size_t count);
  void addMap(std::size_t pairs);
  void addTag(std::uint64_t tag);

  std::size_t written() const noexcept { return written_; }
  void finish() { bytes_.resize(written_); }

 private:
  std::uint8_t* room();
  void append(const void* bytes, std::size_t length);

  std::vector<std::uint8_t>& bytes_;
  std::size_t written_ = 0;
};

}  // namespace velto::wire
