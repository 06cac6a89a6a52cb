#pragma once

#include <array>
#include <cstdint>

#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSString.h"

// A universally unique identifier of 128 bits. New ones are random (version 4). See NSObject for nil and threads.
class VELTO_EXPORT NSUUID : public NSObject {
 public:
  using Bytes = std::array<std::uint8_t, 16>;

  NSUUID() noexcept = default;
  NSUUID(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept { return tag == velto::Tag::uuid; }
  // A new one.
  [[nodiscard]] static NSUUID UUID();
  [[nodiscard]] static NSUUID UUIDWithBytes(const Bytes& bytes);
  // nil unless the text has the form of UUIDString (either letter case).
  [[nodiscard]] static NSUUID UUIDWithString(const NSString& text);

  // "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"; nil for nil.
  [[nodiscard]] NSString UUIDString() const;
  // All zero for nil.
  [[nodiscard]] Bytes bytes() const noexcept;

 private:
  explicit NSUUID(const velto::Value& adopted) noexcept : NSObject(adopted) {}
};
