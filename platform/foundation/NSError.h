#pragma once

#include <cstdint>

#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSObject.h"
#include "platform/foundation/NSString.h"

// The key of an error's text in its user info.
VELTO_EXPORT extern const NSString NSLocalizedDescriptionKey;

// What went wrong: a domain, a code within it, and a dictionary of details. Equal when all three are. See NSObject for
// nil and threads. Its description is `Domain code 2: text`.
class VELTO_EXPORT NSError : public NSObject {
 public:
  NSError() noexcept = default;
  NSError(std::nullptr_t) noexcept {}
  explicit operator bool() const noexcept { return !isNil(); }

  static velto::Class classObject();
  static constexpr bool isKind(velto::Tag tag) noexcept { return tag == velto::Tag::error; }
  [[nodiscard]] static NSError errorWithDomain(const NSString& domain, std::int64_t code, const NSDictionary& userInfo);

  [[nodiscard]] NSString domain() const;
  [[nodiscard]] std::int64_t code() const noexcept;
  [[nodiscard]] NSDictionary userInfo() const;
  // The text under NSLocalizedDescriptionKey; nil when there is none.
  [[nodiscard]] NSString localizedDescription() const;

 private:
  explicit NSError(const velto::Value& adopted) noexcept : NSObject(adopted) {}
};
