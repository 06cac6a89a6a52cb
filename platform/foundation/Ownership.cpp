// Copies out of regions. They nest no deeper than messages do.
#include "platform/foundation/Ownership.h"

#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/DataBody.h"
#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/PlainBodies.h"
#include "platform/foundation/StringBody.h"

namespace velto {
namespace {

NSObject copyOfArray(const NSObject& value) {
  const std::span<const NSObject> elements = elementsOf(value.value());
  ArrayBody& copy = ArrayBody::make(elements.size());
  NSObject made = NSObject::adopt(Value(copy));
  for (const NSObject& each : elements) copy.add(owned(each).giveUp());
  return made;
}

NSObject copyOfEntries(const NSObject& value) {
  const KeyTable entries = tableOf(value.value());
  KeyedBody& copy = KeyedBody::make(value.value().tag(), entries.slots());
  NSObject made = NSObject::adopt(Value(copy));
  for (std::size_t slot = 0; slot < entries.slots(); ++slot) {
    copy.put(owned(entries.key(slot)), entries.stride() == 2 ? owned(entries.value(slot)) : NSObject());
  }
  return made;
}

}  // namespace

NSObject owned(const NSObject& value) {
  const Value& words = value.value();
  if (!words.isCounted() || !words.body().isInRegion()) return value;
  const Body& body = words.body();
  switch (words.tag()) {
    case Tag::string:
      return NSObject::adopt(StringBody::make(textOf(words)));
    case Tag::array:
      return copyOfArray(value);
    case Tag::dictionary:
    case Tag::set:
      return copyOfEntries(value);
    case Tag::data:
      return NSObject::adopt(DataBody::copy(bytesOf(words)));
    case Tag::date: {
      const auto& date = static_cast<const DateBody&>(body);
      return NSObject::adopt(DateBody::make(date.seconds(), date.steady()));
    }
    case Tag::uuid:
      return NSObject::adopt(UUIDBody::make(static_cast<const UUIDBody&>(body).bytes()));
    case Tag::url: {
      NSObject text = owned(static_cast<const URLBody&>(body).text());
      NSObject made = NSObject::adopt(URLBody::make(text.value()));
      text.giveUp();
      return made;
    }
    case Tag::error: {
      const auto& error = static_cast<const ErrorBody&>(body);
      NSObject domain = owned(error.domain());
      NSObject userInfo = owned(error.userInfo());
      NSObject made = NSObject::adopt(ErrorBody::make(domain.value(), error.code(), userInfo.value()));
      domain.giveUp();
      userInfo.giveUp();
      return made;
    }
    default:
      return value;
  }
}

}  // namespace velto
