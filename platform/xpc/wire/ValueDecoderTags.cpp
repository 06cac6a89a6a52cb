// The half of the decoder that knows what stands under each tag. What belongs to a tag is read on the spot, so that no
// chain of tags, however long, takes a level of anything.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/MappedMemory.h"
#include "platform/foundation/NSCoding.h"
#include "platform/foundation/Ownership.h"
#include "platform/foundation/PlainBodies.h"
#include "platform/foundation/StringBody.h"
#include "platform/foundation/UTF8.h"
#include "platform/xpc/wire/Tags.h"
#include "platform/xpc/wire/Text.h"
#include "platform/xpc/wire/ValueDecoder.h"

namespace velto::wire {

using Type = Item::Type;

ValueDecoder::Step ValueDecoder::tagged(std::uint64_t tag) {
  Item item;
  switch (tag) {
    case kDateTag:
      return date();
    case kURLTag:
      return url();
    case kUUIDTag:
      return uuid();
    case kObjectTag:
      return object();
    case kSetTag:
      if (!expect(Type::array, item, "the list of a set")) return Step::broken;
      return container<Kind::set>(PlainClass::set, item.number);
    case kRegionTag:
      return dataInRegion();
    case kUnsignedTag:
      if (!expect(Type::unsignedInteger, item, "an unsigned number")) return Step::broken;
      if (!mayHold(PlainClass::number)) return Step::refused;
      made_ = Value(Tag::unsignedInteger, item.number);
      return Step::complete;
    default:
      return refuse("holds a value with tag " + std::to_string(tag) + ", which is not known here");
  }
}

ValueDecoder::Step ValueDecoder::date() {
  Item item;
  if (!expect(Type::floatingPoint, item, "the seconds of a date")) return Step::broken;
  if (!std::isfinite(item.real)) return breakOff("a date that is not finite");
  if (!mayHold(PlainClass::date)) return Step::refused;
  made_ = DateBody::make(item.real, std::nullopt, region());
  return Step::complete;
}

ValueDecoder::Step ValueDecoder::url() {
  Item item;
  if (!expect(Type::text, item, "the text of a URL")) return Step::broken;
  if (!isValidUTF8(item.view())) return breakOff("a text that is not UTF-8");
  if (!isURLText(item.view())) return refuse("holds a URL that is none: " + peerName(item.view()));
  if (!mayHold(PlainClass::url)) return Step::refused;
  made_ = validTextValue(item.view(), region());
  made_ = URLBody::make(made_, region());
  return Step::complete;
}

ValueDecoder::Step ValueDecoder::uuid() {
  Item item;
  NSUUID::Bytes bytes{};
  if (!expect(Type::bytes, item, "the bytes of a UUID")) return Step::broken;
  if (item.number != bytes.size()) return breakOff("a UUID of " + std::to_string(item.number) + " bytes, not 16");
  std::memcpy(bytes.data(), item.start, bytes.size());
  if (!mayHold(PlainClass::uuid)) return Step::refused;
  made_ = UUIDBody::make(bytes, region());
  return Step::complete;
}

ValueDecoder::Step ValueDecoder::object() {
  Item list, name;
  if (!expect(Type::array, list, "the list of an object")) return Step::broken;
  if (list.number < 2) return breakOff("an object without its class or its contents");
  if (!expect(Type::text, name, "the name of a class")) return Step::broken;
  const std::string_view className = name.view();
  if (!isValidUTF8(className)) return breakOff("a text that is not UTF-8");
  if (className == kErrorName) return error(list.number);
  if (CodedClass found = codedClassNamed(className); !found.classObject.isNil()) {
    return coded(std::move(found), list.number);
  }
  if (const DescriptorClass found = descriptorClassNamed(className); !found.classObject.isNil()) {
    return withDescriptors(found, list.number);
  }
  return refuse("holds an object of class " + peerName(className) + ", which is not known here");
}

ValueDecoder::Step ValueDecoder::error(std::uint64_t items) {
  if (items != 4) return breakOff("an error of " + std::to_string(items) + " items, not 4");
  Item domain, code, userInfo;
  if (!expect(Type::text, domain, "the domain of an error") || !read(code)) return Step::broken;
  const bool isInteger = code.type == Type::unsignedInteger || code.type == Type::negativeInteger;
  if (!isInteger || code.number > INT64_MAX) return breakOff("an error whose code is no signed number");
  if (!expect(Type::map, userInfo, "the user info of an error")) return Step::broken;
  if (!isValidUTF8(domain.view())) return breakOff("a text that is not UTF-8");
  if (!mayHold(PlainClass::error) || isTooDeep()) return Step::refused;
  const auto number = static_cast<std::int64_t>(code.number);
  if (const Step step = open<Kind::error>(2 * userInfo.number); step != Step::opened) return step;
  top().domain = validTextValue(domain.view(), region());
  top().code = code.type == Type::negativeInteger ? -1 - number : number;
  return userInfo.number == 0 ? close() : Step::opened;
}

ValueDecoder::Step ValueDecoder::coded(CodedClass aClass, std::uint64_t items) {
  const std::string name = aClass.classObject.name().string();
  if (items != 2) return breakOff("an object of class " + name + " in " + std::to_string(items) + " items, not 2");
  if (!admitted_->admits(aClass.classObject)) return refuseClass(name);
  if (isTooDeep()) return Step::refused;
  const Step step = open<Kind::coded>(1);
  if (step == Step::opened) coded_.push_back(std::move(aClass));
  return step;
}

ValueDecoder::Step ValueDecoder::closeCoded() {
  cost_ = top().cost.toCompare();
  --depth_;
  const CodedClass aClass = std::move(coded_.back());
  coded_.pop_back();
  // Not in the region: the region keeps what is made of it, which may keep this.
  const NSObject contents = owned(giveMade(false));
  const NSObject made = aClass.coding.decode ? aClass.coding.decode(contents) : nil;
  if (made.isKindOfClass(aClass.classObject)) {
    take(made);
    return Step::complete;
  }
  return refuse("holds an object of class " + aClass.classObject.name().string() +
                " that cannot be made from what it contains");
}

ValueDecoder::Step ValueDecoder::withDescriptors(const DescriptorClass& aClass, std::uint64_t items) {
  const std::string name = aClass.classObject.name().string();
  if (items != 2) return breakOff("an object of class " + name + " in " + std::to_string(items) + " items, not 2");
  if (!admitted_->admits(aClass.classObject)) return refuseClass(name);
  if (!aClass.coding.mayBeKey && isInKey()) {
    return refuse("holds an object of class " + name + " in a key of a dictionary or in a set");
  }
  std::vector<system::SharedDescriptor> taken;
  if (!takeDescriptors(taken)) return Step::broken;
  std::string reason;
  // Where a region stood that nobody here admits there is nothing any more.
  const bool isWhole = std::all_of(taken.begin(), taken.end(), [](const auto& each) { return each != nullptr; });
  const NSObject made = isWhole ? aClass.coding.make(taken, reason) : NSObject();
  if (made.isKindOfClass(aClass.classObject)) {
    take(made);
    return Step::complete;
  }
  if (!reason.empty()) return refuse(std::move(reason));
  return refuse("holds an object of class " + name + " whose descriptors are not what they should be");
}

bool ValueDecoder::takeDescriptors(std::vector<system::SharedDescriptor>& taken) {
  Item list, index;
  if (!expect(Type::array, list, "a list of descriptors")) return false;
  for (std::uint64_t left = list.number; left > 0; --left) {
    if (!expect(Type::unsignedInteger, index, "the index of a descriptor")) return false;
    if (!takeDescriptor(index.number, taken)) return false;
  }
  return true;
}

bool ValueDecoder::takeDescriptor(std::uint64_t index, std::vector<system::SharedDescriptor>& taken) {
  const auto position = static_cast<std::size_t>(index);
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
  return true;
}

bool ValueDecoder::isInKey() noexcept {
  for (std::size_t index = 0; index < depth_; ++index) {
    const Level& each = level(index);
    const bool hasKeys = each.kind == Kind::dictionary || each.kind == Kind::error;
    if (each.kind == Kind::set || (hasKeys && each.itemsLeft % 2 == 0)) return true;
  }
  return false;
}

// It is mapped, not copied. Its seals are looked at when its frame comes, and again when it is mapped.
ValueDecoder::Step ValueDecoder::dataInRegion() {
  Item list, index, length;
  if (!expect(Type::array, list, "a list for data in a region")) return Step::broken;
  if (list.number != 2) return breakOff("data in a region in " + std::to_string(list.number) + " items, not 2");
  if (!expect(Type::unsignedInteger, index, "the index of a descriptor")) return Step::broken;
  if (!expect(Type::unsignedInteger, length, "the length of a region")) return Step::broken;
  if (frame_.regions == 0) return breakOff("data in a region of a frame without regions");
  if (length.number < limits::kLeastRegionBytes) {
    return breakOff("data in a region of " + std::to_string(length.number) + " bytes, fewer than " +
                    std::to_string(limits::kLeastRegionBytes));
  }
  if (!mayHold(PlainClass::data)) return Step::refused;
  // A region may have no memory behind it: to hash or compare what cost its sender nothing would cost too much here.
  if (isInKey()) return refuse("holds data in a region in a key of a dictionary or in a set");
  std::vector<system::SharedDescriptor> region;
  if (!takeDescriptor(index.number, region)) return Step::broken;
  if (!region.front()) return refuse("holds data in a region that did not come");
  NSError error;
  const NSData mapped = mapForeignMemory(region.front()->get(), length.number, limits::kMappedRegions, error);
  if (mapped.isNil()) return refuse("holds data in a region: " + error.localizedDescription().string());
  take(mapped);
  return Step::complete;
}

}  // namespace velto::wire
