#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/Foundation.h"
#include "tools/JSONMarkers.h"

namespace velto::tools {

// Builds a value out of what a reader of JSON comes upon, in the order of the text, without recursion. Every function
// answers whether to go on; once one has answered false, reason() says what was wrong and the rest is not asked.
//
// Not thread-safe.
class ValueBuilder {
 public:
  bool null() { return accept(NSNull::null()); }
  bool boolean(bool value) { return accept(value); }
  // An integer is signed if it can be.
  bool signedInteger(std::int64_t value) { return number(value); }
  bool unsignedInteger(std::uint64_t value);
  bool floatingPoint(double value) { return number(value); }
  bool text(const std::string& text);
  bool startArray();
  bool endArray();
  bool startObject();
  bool key(const std::string& name);
  bool endObject();

  bool fail(std::string reason);
  const std::string& reason() const noexcept { return reason_; }
  // The whole, once everything has been read.
  NSObject take() { return std::move(whole_); }

 private:
  // What a bracket opened. An object is undecided until its first key tells whether it is a dictionary or marked.
  enum class Kind { array, undecided, dictionary, marked, set, pairs, pair, error };
  struct Frame {
    Kind kind;
    JSONMarker marker = JSONMarker::data;  // of what is marked
    bool isLevel = false;                  // of nesting
    NSObject key{};                        // of a dictionary or an error: the last one read
    std::vector<NSObject> elements{};      // of an array or a pair; of what is marked, its value
    NSMutableDictionary entries{};         // of a dictionary, a list of pairs or an error
    NSMutableSet set{};
  };

  bool isUnder(JSONMarker marker) const;
  bool number(const NSObject& value);
  bool push(Kind kind);
  bool enterLevel(Frame& frame);
  Frame pop();
  bool accept(const NSObject& value);
  bool acceptInList(Frame& frame, const NSObject& value);
  bool acceptPair(const Frame& pair);
  bool acceptEntry(Frame& frame, const NSObject& key, const NSObject& value);
  bool acceptMarked(Frame& frame, const NSObject& value);
  bool acceptPart(Frame& error, const NSObject& value);
  bool decide(Frame& frame, const std::string& name);
  bool keyOfDictionary(Frame& frame, const std::string& name);
  bool keyOfError(Frame& frame, const std::string& name);
  bool endError();
  bool failUnder(JSONMarker marker);

  std::vector<Frame> frames_;
  std::size_t levels_ = 0;
  NSObject whole_;
  std::string reason_;
};

}  // namespace velto::tools
