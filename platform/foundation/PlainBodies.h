#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSString.h"
#include "platform/foundation/NSUUID.h"
#include "platform/foundation/Region.h"

namespace velto {

class Demolition;

// What the small value classes hold. Each is made with one reference, or in a region, which then holds its parts too.

class DateBody final : public Body {
 public:
  using SteadyTime = std::chrono::steady_clock::time_point;

  static Value make(double seconds, std::optional<SteadyTime> steady, Region* region = nullptr) {
    return Value(*new (allocateBody(sizeof(DateBody), region)) DateBody(seconds, steady, region));
  }
  double seconds() const noexcept { return seconds_; }
  const std::optional<SteadyTime>& steady() const noexcept { return steady_; }
  void dismantle() const noexcept { releaseBody(*this, sizeof(DateBody)); }

 private:
  DateBody(double seconds, std::optional<SteadyTime> steady, Region* region) noexcept
      : Body(Tag::date, region), seconds_(seconds), steady_(steady) {}

  const double seconds_;
  const std::optional<SteadyTime> steady_;
};

class UUIDBody final : public Body {
 public:
  static Value make(const NSUUID::Bytes& bytes, Region* region = nullptr) {
    return Value(*new (allocateBody(sizeof(UUIDBody), region)) UUIDBody(bytes, region));
  }
  const NSUUID::Bytes& bytes() const noexcept { return bytes_; }
  void dismantle() const noexcept { releaseBody(*this, sizeof(UUIDBody)); }

 private:
  UUIDBody(const NSUUID::Bytes& bytes, Region* region) noexcept : Body(Tag::uuid, region), bytes_(bytes) {}

  const NSUUID::Bytes bytes_;
};

// Not empty, without spaces and control characters.
bool isURLText(std::string_view text) noexcept;

class URLBody final : public Body {
 public:
  // Takes over the reference to the text, an immutable string.
  static Value make(const Value& text, Region* region = nullptr) {
    return Value(*new (allocateBody(sizeof(URLBody), region)) URLBody(text, region));
  }
  const NSObject& text() const noexcept { return text_; }
  void dismantle(Demolition& demolition) const noexcept;

 private:
  URLBody(const Value& text, Region* region) noexcept : Body(Tag::url, region), text_(NSObject::adopt(text)) {}

  NSObject text_;
};

class ErrorBody final : public Body {
 public:
  // Takes over the references to an immutable string and an immutable dictionary.
  static Value make(const Value& domain, std::int64_t code, const Value& userInfo, Region* region = nullptr) {
    return Value(*new (allocateBody(sizeof(ErrorBody), region)) ErrorBody(domain, code, userInfo, region));
  }
  const NSObject& domain() const noexcept { return domain_; }
  std::int64_t code() const noexcept { return code_; }
  const NSObject& userInfo() const noexcept { return userInfo_; }
  void dismantle(Demolition& demolition) const noexcept;

 private:
  ErrorBody(const Value& domain, std::int64_t code, const Value& userInfo, Region* region) noexcept
      : Body(Tag::error, region), domain_(NSObject::adopt(domain)), code_(code), userInfo_(NSObject::adopt(userInfo)) {}

  NSObject domain_;
  const std::int64_t code_;
  NSObject userInfo_;
};

}  // namespace velto
