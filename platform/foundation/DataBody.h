#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/foundation/ObjectBody.h"

namespace velto {

// The bytes of an NSData or NSMutableData: in a vector of its own, or somebody else's, who is told at the end.
class DataBody final : public ObjectBody {
 public:
  enum class Mutability { immutable, growing };

  DataBody(std::vector<std::uint8_t> owned, Mutability mutability);
  DataBody(const void* borrowed, std::size_t length, std::function<void()> deleter);
  ~DataBody() override;

  const std::uint8_t* bytes() const noexcept { return deleter_ ? borrowed_ : owned_.data(); }
  std::size_t length() const noexcept { return deleter_ ? length_ : owned_.size(); }
  // For growing ones, which always own their bytes.
  std::vector<std::uint8_t>& owned() noexcept { return owned_; }

  const ClassBody& classBody() const override;
  bool isEqual(const ObjectBody& other, WalkBound& bound) const override;
  std::size_t hash() const override;
  void describe(std::string& out, WalkBound& bound) const override;

 private:
  const Mutability mutability_;
  std::vector<std::uint8_t> owned_;
  const std::uint8_t* const borrowed_ = nullptr;
  const std::size_t length_ = 0;
  const std::function<void()> deleter_;  // never empty for borrowed bytes
};

}  // namespace velto
