// The value classes as a small number each: encoder and decoder ask for the class of every object.

#include "platform/xpc/wire/PlainClass.h"

#include <array>

#include "platform/foundation/Foundation.h"

namespace velto::wire {

// In the order of the enumeration.
const ClassBody& classBodyOf(PlainClass plain) noexcept {
  static const std::array<const ClassBody*, kPlainClasses> made{
      &velto::classBodyOf<NSString>(), &velto::classBodyOf<NSNumber>(), &velto::classBodyOf<NSDictionary>(),
      &velto::classBodyOf<NSArray>(),  &velto::classBodyOf<NSData>(),   &velto::classBodyOf<NSDate>(),
      &velto::classBodyOf<NSNull>(),   &velto::classBodyOf<NSSet>(),    &velto::classBodyOf<NSUUID>(),
      &velto::classBodyOf<NSURL>(),    &velto::classBodyOf<NSError>()};
  return *made[static_cast<std::size_t>(plain)];
}

}  // namespace velto::wire
