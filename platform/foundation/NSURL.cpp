// URLs: text that is kept as given.
#include "platform/foundation/NSURL.h"

#include <algorithm>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/PlainBodies.h"

namespace velto {
namespace {

bool isSpaceOrControl(char character) {
  const auto code = static_cast<unsigned char>(character);
  return code <= 0x20 || code == 0x7f;
}

}  // namespace

bool isURLText(std::string_view text) noexcept {
  return !text.empty() && std::none_of(text.begin(), text.end(), isSpaceOrControl);
}

}  // namespace velto

using velto::URLBody;

Class NSURL::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSURL", NSObject::classObject()));
  return made;
}

NSURL NSURL::URLWithString(const NSString& text) {
  if (!velto::isURLText(text.view())) return nil;
  NSString own = text.copy();
  const velto::Value made = URLBody::make(own.value());
  own.giveUp();
  return NSURL(made);
}

NSString NSURL::absoluteString() const {
  return isNil() ? NSString() : static_cast<const URLBody&>(value().body()).text().as<NSString>();
}
