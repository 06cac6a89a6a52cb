// A stack of what is open. Which form an object has is decided by its first key, and from then on only what that form
// allows is taken. Levels of nesting are counted as the writer counts them, which bounds the stack.
#include "tools/ValueBuilder.h"

#include "platform/foundation/JSON.h"

namespace velto::tools {
namespace {

constexpr char kTwice[] = "a key or an element comes twice";

// Of an integer that a double holds exactly.
constexpr std::int64_t kMaximumExactInteger = (std::int64_t{1} << 53) - 1;

NSObject secondsOf(const NSObject& number) {
  const NSNumber::Kind kind = number.as<NSNumber>().kind();
  if (kind == NSNumber::Kind::floatingPoint) return number;
  const std::int64_t seconds = number.integerValue();
  const bool isExact = seconds >= -kMaximumExactInteger && seconds <= kMaximumExactInteger;
  return kind == NSNumber::Kind::signedInteger && isExact ? NSObject(static_cast<double>(seconds)) : nil;
}

}  // namespace

bool ValueBuilder::fail(std::string reason) {
  reason_ = std::move(reason);
  return false;
}

bool ValueBuilder::failUnder(JSONMarker marker) {
  return fail("under " + nameOf(marker) + " stands " + expectedUnder(marker));
}

bool ValueBuilder::isUnder(JSONMarker marker) const {
  return !frames_.empty() && frames_.back().kind == Kind::marked && frames_.back().marker == marker;
}

bool ValueBuilder::unsignedInteger(std::uint64_t value) {
  return value <= INT64_MAX ? number(static_cast<std::int64_t>(value)) : number(value);
}

bool ValueBuilder::number(const NSObject& value) {
  if (!isUnder(JSONMarker::date)) return accept(value);
  const NSObject seconds = secondsOf(value);
  if (seconds.isNil()) return failUnder(JSONMarker::date);
  frames_.back().elements.push_back(NSDate::dateWithTimeIntervalSince1970(seconds.doubleValue()));
  return true;
}

bool ValueBuilder::text(const std::string& text) {
  if (frames_.empty() || frames_.back().kind != Kind::marked) return accept(text);
  const JSONMarker marker = frames_.back().marker;
  const NSObject value = valueOfMarkedText(marker, text);
  if (value.isNil()) return failUnder(marker);
  frames_.back().elements.push_back(value);
  return true;
}

bool ValueBuilder::push(Kind kind) {
  frames_.push_back({.kind = kind});
  return true;
}

bool ValueBuilder::enterLevel(Frame& frame) {
  // The user info of an error is part of its level.
  if (frames_.size() >= 2 && frames_[frames_.size() - 2].kind == Kind::error) return true;
  const bool isInMarkedPart =
      frames_.size() >= 3 && frame.kind == Kind::pairs && frames_[frames_.size() - 3].kind == Kind::error;
  if (isInMarkedPart) return true;
  frame.isLevel = true;
  return ++levels_ <= kMaximumJSONDepth ||
         fail("containers nest deeper than " + std::to_string(kMaximumJSONDepth) + " levels");
}

ValueBuilder::Frame ValueBuilder::pop() {
  Frame frame = std::move(frames_.back());
  frames_.pop_back();
  if (frame.isLevel) --levels_;
  return frame;
}

bool ValueBuilder::startArray() {
  Kind kind = Kind::array;
  if (isUnder(JSONMarker::set)) {
    kind = Kind::set;
  } else if (isUnder(JSONMarker::dictionary)) {
    kind = Kind::pairs;
  } else if (!frames_.empty() && frames_.back().kind == Kind::marked) {
    return failUnder(frames_.back().marker);
  } else if (!frames_.empty() && frames_.back().kind == Kind::pairs) {
    return push(Kind::pair);
  }
  push(kind);
  Frame& frame = frames_.back();
  if (kind == Kind::set) frame.set = NSMutableSet::set();
  if (kind == Kind::pairs) frame.entries = NSMutableDictionary::dictionary();
  return enterLevel(frame);
}

bool ValueBuilder::endArray() {
  const Frame frame = pop();
  switch (frame.kind) {
    case Kind::pair:
      return acceptPair(frame);
    case Kind::pairs:
      return accept(frame.entries.copy());
    case Kind::set:
      return accept(frame.set.copy());
    default:
      return accept(NSArray::arrayWithObjects(frame.elements));
  }
}

bool ValueBuilder::startObject() {
  if (isUnder(JSONMarker::error)) {
    push(Kind::error);
    frames_.back().entries = NSMutableDictionary::dictionary();
    return enterLevel(frames_.back());
  }
  if (!frames_.empty() && frames_.back().kind == Kind::marked) return failUnder(frames_.back().marker);
  if (!frames_.empty() && frames_.back().kind == Kind::pairs) return failUnder(JSONMarker::dictionary);
  return push(Kind::undecided);
}

bool ValueBuilder::key(const std::string& name) {
  Frame& frame = frames_.back();
  switch (frame.kind) {
    case Kind::undecided:
      return decide(frame, name);
    case Kind::dictionary:
      return keyOfDictionary(frame, name);
    case Kind::error:
      return keyOfError(frame, name);
    default:
      return fail("beside " + nameOf(frame.marker) + " stands no other key");
  }
}

bool ValueBuilder::decide(Frame& frame, const std::string& name) {
  if (const std::optional<JSONMarker> marker = markerNamed(name)) {
    frame.kind = Kind::marked;
    frame.marker = *marker;
    return true;
  }
  frame.kind = Kind::dictionary;
  frame.entries = NSMutableDictionary::dictionary();
  return enterLevel(frame) && keyOfDictionary(frame, name);
}

bool ValueBuilder::keyOfDictionary(Frame& frame, const std::string& name) {
  if (!name.starts_with('$')) {
    frame.key = name;
    return true;
  }
  if (!name.starts_with("$$")) {
    return fail(markerNamed(name) ? "beside a marker stands no other key"
                                  : "an unknown marker; a key that begins with $ is written with two");
  }
  frame.key = name.substr(1);
  return true;
}

bool ValueBuilder::keyOfError(Frame& frame, const std::string& name) {
  if (name != "domain" && name != "code" && name != "userInfo") return failUnder(JSONMarker::error);
  frame.key = name;
  return true;
}

bool ValueBuilder::endObject() {
  switch (frames_.back().kind) {
    case Kind::error:
      return endError();
    case Kind::marked:
      return accept(pop().elements.front());
    case Kind::undecided:
      if (!enterLevel(frames_.back())) return false;
      pop();
      return accept(NSDictionary::dictionary());
    default:
      return accept(pop().entries.copy());
  }
}

bool ValueBuilder::endError() {
  const NSDictionary parts = pop().entries;
  if (parts.count() != 3) return failUnder(JSONMarker::error);
  return accept(NSError::errorWithDomain(parts["domain"].as<NSString>(), parts["code"].integerValue(),
                                         parts["userInfo"].as<NSDictionary>()));
}

bool ValueBuilder::accept(const NSObject& value) {
  if (frames_.empty()) {
    whole_ = value;
    return true;
  }
  Frame& frame = frames_.back();
  switch (frame.kind) {
    case Kind::marked:
      return acceptMarked(frame, value);
    case Kind::dictionary:
      return acceptEntry(frame, frame.key, value);
    case Kind::error:
      return acceptPart(frame, value);
    default:
      return acceptInList(frame, value);
  }
}

bool ValueBuilder::acceptInList(Frame& frame, const NSObject& value) {
  if (frame.kind == Kind::pairs) return failUnder(JSONMarker::dictionary);
  if (frame.kind == Kind::set) {
    if (frame.set.containsObject(value)) return fail(kTwice);
    frame.set.addObject(value);
    return true;
  }
  frame.elements.push_back(value);
  return frame.kind == Kind::array || frame.elements.size() <= 2 || failUnder(JSONMarker::dictionary);
}

bool ValueBuilder::acceptPair(const Frame& pair) {
  if (pair.elements.size() != 2) return failUnder(JSONMarker::dictionary);
  return acceptEntry(frames_.back(), pair.elements[0], pair.elements[1]);
}

bool ValueBuilder::acceptEntry(Frame& frame, const NSObject& key, const NSObject& value) {
  if (!frame.entries.objectForKey(key).isNil()) return fail(kTwice);
  frame.entries.setObject(value, key);
  return true;
}

// Only what its own brackets made: a set, a dictionary or an error.
bool ValueBuilder::acceptMarked(Frame& frame, const NSObject& value) {
  const bool isRight = (frame.marker == JSONMarker::set && value.is<NSSet>()) ||
                       (frame.marker == JSONMarker::dictionary && value.is<NSDictionary>()) ||
                       (frame.marker == JSONMarker::error && value.is<NSError>());
  if (!isRight) return failUnder(frame.marker);
  frame.elements.push_back(value);
  return true;
}

bool ValueBuilder::acceptPart(Frame& error, const NSObject& value) {
  const bool isRight = error.key == NSObject("domain") ? value.is<NSString>()
                       : error.key == NSObject("code")
                           ? value.is<NSNumber>() && value.as<NSNumber>().kind() == NSNumber::Kind::signedInteger
                           : value.is<NSDictionary>();
  return isRight ? acceptEntry(error, error.key, value) : failUnder(JSONMarker::error);
}

}  // namespace velto::tools
