// The half of the decoder that knows what stands under each tag. What belongs to a tag is read on the spot, so that no
// chain of tags, however long, takes a level of anything.

#include <cmath>
#include <cstring>
#include <utility>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/NSCoding.h"
#include "platform/foundation/UTF8.h"
#include "platform/xpc/wire/Tags.h"
#include "platform/xpc/wire/Text.h"
#include "platform/xpc/wire/ValueDecoder.h"

namespace velto::wire {

using Kind = ContainerStack::Kind;
using Type = Item::Type;

ValueDecoder::Step ValueDecoder::tagged(std::uint64_t tag, NSObject& made) {
  Item item;
  switch (tag) {
    case kDateTag:
      return date(made);
    case kURLTag:
      return url(made);
    case kUUIDTag:
      return uuid(made);
    case kObjectTag:
      return object(made);
    case kSetTag:
      if (!expect(Type::array, item, "the list of a set")) return Step::broken;
      return container(PlainClass::set, Kind::set, item.number, made);
    case kUnsignedTag:
      if (!expect(Type::unsignedInteger, item, "an unsigned number")) return Step::broken;
      return plain(PlainClass::number, NSNumber::numberWithUnsigned(item.number), made);
    default:
      return refuse("holds a value with tag " + std::to_string(tag) + ", which is not known here");
  }
}

ValueDecoder::Step ValueDecoder::date(NSObject& made) {
  Item item;
  if (!expect(Type::floatingPoint, item, "the seconds of a date")) return Step::broken;
  if (!std::isfinite(item.real)) return breakOff("a date that is not finite");
  return plain(PlainClass::date, NSDate::dateWithTimeIntervalSince1970(item.real), made);
}

ValueDecoder::Step ValueDecoder::url(NSObject& made) {
  Item item;
  if (!expect(Type::text, item, "the text of a URL")) return Step::broken;
  const NSString text = NSString::stringWithUTF8(item.view());
  if (text.isNil()) return breakOff("a text that is not UTF-8");
  NSURL url = NSURL::URLWithString(text);
  if (url.isNil()) return refuse("holds a URL that is none: " + peerName(text.view()));
  return plain(PlainClass::url, std::move(url), made);
}

ValueDecoder::Step ValueDecoder::uuid(NSObject& made) {
  Item item;
  NSUUID::Bytes bytes{};
  if (!expect(Type::bytes, item, "the bytes of a UUID")) return Step::broken;
  if (item.number != bytes.size()) return breakOff("a UUID of " + std::to_string(item.number) + " bytes, not 16");
  std::memcpy(bytes.data(), item.start, bytes.size());
  return plain(PlainClass::uuid, NSUUID::UUIDWithBytes(bytes), made);
}

ValueDecoder::Step ValueDecoder::object(NSObject& made) {
  Item list, name;
  if (!expect(Type::array, list, "the list of an object")) return Step::broken;
  if (list.number < 2) return breakOff("an object without its class or its contents");
  if (!expect(Type::text, name, "the name of a class")) return Step::broken;
  const std::string_view className = name.view();
  if (!isValidUTF8(className)) return breakOff("a text that is not UTF-8");
  if (className == kErrorName) return error(list.number, made);
  if (CodedClass found = codedClassNamed(className); found.classObject) {
    return coded(std::move(found), list.number, made);
  }
  if (const DescriptorClass found = descriptorClassNamed(className); found.classObject) {
    return withDescriptors(found, list.number, made);
  }
  return refuse("holds an object of class " + peerName(className) + ", which is not known here");
}

ValueDecoder::Step ValueDecoder::error(std::uint64_t items, NSObject& made) {
  if (items != 4) return breakOff("an error of " + std::to_string(items) + " items, not 4");
  Item domain, code, userInfo;
  if (!expect(Type::text, domain, "the domain of an error") || !read(code)) return Step::broken;
  const bool isInteger = code.type == Type::unsignedInteger || code.type == Type::negativeInteger;
  if (!isInteger || code.number > INT64_MAX) return breakOff("an error whose code is no signed number");
  if (!expect(Type::map, userInfo, "the user info of an error")) return Step::broken;
  NSString text = NSString::stringWithUTF8(domain.view());
  if (text.isNil()) return breakOff("a text that is not UTF-8");
  if (!admitted_->admits(PlainClass::error)) return refuseClass(kErrorName);
  if (isTooDeep()) return Step::refused;
  const auto number = static_cast<std::int64_t>(code.number);
  NSNumber codeObject = NSNumber::numberWithSigned(code.type == Type::negativeInteger ? -1 - number : number);
  stack_.openError(std::move(text), std::move(codeObject), 2 * userInfo.number, cost_.work);
  return userInfo.number == 0 ? close(made) : Step::opened;
}

ValueDecoder::Step ValueDecoder::coded(CodedClass aClass, std::uint64_t items, NSObject& made) {
  const std::string name = aClass.classObject.name().string();
  if (items != 2) return breakOff("an object of class " + name + " in " + std::to_string(items) + " items, not 2");
  if (!admitted_->admits(aClass.classObject)) return refuseClass(name);
  if (isTooDeep()) return Step::refused;
  made = nil;
  stack_.openCoded(std::move(aClass));
  return Step::opened;
}

ValueDecoder::Step ValueDecoder::closeCoded(NSObject& made) {
  CodedClass aClass;
  const NSObject contents = stack_.closeCoded(aClass, cost_);
  made = aClass.coding.decode ? aClass.coding.decode(contents) : nil;
  if (made.isKindOfClass(aClass.classObject)) return Step::complete;
  return refuse("holds an object of class " + aClass.classObject.name().string() +
                " that cannot be made from what it contains");
}

ValueDecoder::Step ValueDecoder::withDescriptors(const DescriptorClass& aClass, std::uint64_t items, NSObject& made) {
  const std::string name = aClass.classObject.name().string();
  if (items != 2) return breakOff("an object of class " + name + " in " + std::to_string(items) + " items, not 2");
  if (!admitted_->admits(aClass.classObject)) return refuseClass(name);
  std::vector<system::SharedDescriptor> taken;
  if (!takeDescriptors(taken)) return Step::broken;
  std::string reason;
  made = aClass.coding.make(taken, reason);
  if (made.isKindOfClass(aClass.classObject)) return Step::complete;
  if (!reason.empty()) return refuse(std::move(reason));
  return refuse("holds an object of class " + name + " whose descriptors are not what they should be");
}

bool ValueDecoder::takeDescriptors(std::vector<system::SharedDescriptor>& taken) {
  Item list, index;
  if (!expect(Type::array, list, "a list of descriptors")) return false;
  for (std::uint64_t left = list.number; left > 0; --left) {
    if (!expect(Type::unsignedInteger, index, "the index of a descriptor")) return false;
    const auto position = static_cast<std::size_t>(index.number);
    if (position >= frame_.descriptors.size() || position >= taken_.size()) {
      breakOff("descriptor " + std::to_string(position) + " of a frame that carries " +
               std::to_string(frame_.descriptors.size()));
      return false;
    }
    // Each stands for one thing: a peer cannot have one checked a million times.
    if (taken_.test(position)) {
      breakOff("descriptor " + std::to_string(position) + " named twice");
      return false;
    }
    taken_.set(position);
    taken.push_back(frame_.descriptors[position]);
  }
  return true;
}

}  // namespace velto::wire
