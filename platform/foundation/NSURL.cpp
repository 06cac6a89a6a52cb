// URLs: text that is kept as given.
#include "platform/foundation/NSURL.h"

#include <algorithm>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/SipHash.h"
#include "platform/foundation/Walk.h"

namespace velto {
namespace {

class URLBody final : public ObjectBody {
 public:
  explicit URLBody(const NSString& text) : text_(text) {}

  const NSString& text() const noexcept { return text_; }

  const ClassBody& classBody() const override { return classBodyOf<NSURL>(); }
  bool isEqual(const ObjectBody& other, WalkBound&) const override {
    const auto* url = bodyAs<URLBody>(&other);
    return url != nullptr && url->text_.isEqualToString(text_);
  }
  std::size_t hash() const override { return hashOfText(text_.view()); }
  void describe(std::string& out, WalkBound&) const override { out += text_.view(); }

 private:
  const NSString text_;
};

bool isSpaceOrControl(char character) {
  const auto code = static_cast<unsigned char>(character);
  return code <= 0x20 || code == 0x7f;
}

}  // namespace
}  // namespace velto

using velto::URLBody;

Class NSURL::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSURL", NSObject::classObject()));
  return made;
}

NSURL NSURL::URLWithString(const NSString& text) {
  const std::string_view view = text.view();
  if (view.empty() || std::any_of(view.begin(), view.end(), velto::isSpaceOrControl)) return nil;
  return NSURL(new URLBody(text.copy()));
}

NSString NSURL::absoluteString() const {
  return isNil() ? NSString() : static_cast<const URLBody*>(body())->text();
}
