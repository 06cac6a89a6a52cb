#include "tools/veltoctl/FrameText.h"

#include <array>
#include <optional>
#include <string>

#include "platform/foundation/Foundation.h"
#include "platform/foundation/JSON.h"
#include "platform/xpc/wire/Messages.h"
#include "platform/xpc/wire/ValueDecoder.h"

namespace velto::ctl {
namespace {

// What has a form in JSON.
const wire::ClassSet& shownClasses() {
  static const auto& classes = *new wire::ClassSet([] {
    NSMutableSet set = NSMutableSet::set();
    for (const Class& each :
         {NSString::classObject(), NSNumber::classObject(), NSDictionary::classObject(), NSArray::classObject(),
          NSData::classObject(), NSSet::classObject(), NSDate::classObject(), NSUUID::classObject(),
          NSURL::classObject(), NSNull::classObject(), NSError::classObject()}) {
      set.addObject(each);
    }
    return set;
  }());
  return classes;
}

// The next value; false when nothing behind it can be read.
bool takeNext(wire::ValueDecoder& decoder, NSObject& shown) {
  NSObject value;
  const auto outcome = decoder.next(shownClasses(), value);
  if (outcome == wire::ValueDecoder::Outcome::broken) return false;
  if (outcome == wire::ValueDecoder::Outcome::refused) {
    shown = NSString("(not shown: " + decoder.reason() + ")");
  } else {
    shown = value.isNil() ? NSObject(NSNull::null()) : value;
  }
  return true;
}

NSNumber numberOf(std::uint64_t value) {
  return static_cast<std::int64_t>(value);
}

void addCall(const wire::Frame& frame, NSMutableDictionary& shown) {
  wire::ValueDecoder decoder(frame);
  std::string reason;
  const auto header = wire::decodeCallHeader(decoder, reason);
  if (!header) return;
  shown["call"] = numberOf(header->identifier);
  shown["selector"] = NSString::stringWithUTF8(header->selector);
  NSMutableArray arguments = NSMutableArray::array();
  for (NSObject value; !decoder.atEnd() && takeNext(decoder, value);) arguments.addObject(value);
  shown["arguments"] = arguments;
}

void addReply(const wire::Frame& frame, NSMutableDictionary& shown) {
  wire::ValueDecoder decoder(frame);
  const auto identifier = decoder.nextUnsigned();
  if (!identifier) return;
  shown["call"] = numberOf(*identifier);
  if (NSObject value; takeNext(decoder, value)) shown["value"] = value;
}

void addRefusal(const wire::Frame& frame, NSMutableDictionary& shown) {
  std::string reason;
  const auto refusal = wire::Refusal::decode(frame, reason);
  if (!refusal) return;
  shown["call"] = numberOf(refusal->identifier);
  shown["reason"] = NSString::stringWithUTF8(refusal->text);
}

const char* kindOf(wire::FrameType type) {
  switch (type) {
    case wire::FrameType::call:
      return "call";
    case wire::FrameType::reply:
      return "reply";
    case wire::FrameType::replyDropped:
      return "replyDropped";
    case wire::FrameType::refusal:
      return "refusal";
    case wire::FrameType::replyRefusal:
      return "replyRefusal";
    case wire::FrameType::goodbye:
      return "goodbye";
    case wire::FrameType::hello:
    case wire::FrameType::credit:
      break;
  }
  return nullptr;
}

}  // namespace

NSDictionary shownFrame(const PassedFrame& passed) {
  const wire::Frame& frame = passed.frame;
  const char* const kind = kindOf(frame.type);
  if (kind == nullptr) return nil;
  NSMutableDictionary shown = NSMutableDictionary::dictionary();
  shown["kind"] = kind;
  shown["bytes"] = numberOf(passed.bytes);
  if (!frame.descriptors.empty()) shown["descriptors"] = numberOf(frame.descriptors.size());
  if (passed.bytes > kMostShownBytes) {
    shown["notShown"] = "it is too large";
    return shown;
  }
  std::string reason;
  if (frame.type == wire::FrameType::call) addCall(frame, shown);
  if (frame.type == wire::FrameType::reply) addReply(frame, shown);
  if (frame.type == wire::FrameType::refusal || frame.type == wire::FrameType::replyRefusal) addRefusal(frame, shown);
  if (frame.type == wire::FrameType::replyDropped) {
    if (const auto identifier = wire::decodeReplyDropped(frame, reason)) shown["call"] = numberOf(*identifier);
  }
  return shown;
}

}  // namespace velto::ctl
