#pragma once

#include <optional>
#include <string>

#include "platform/foundation/Class.h"
#include "platform/foundation/NSArray.h"
#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/WalkBound.h"

// Whether every value, at every depth, is a string, number, dictionary, array or data, or of a subclass of these. Keys
// are not examined. nil and empty pass. Each value that fails, and each container around it up to the argument's own
// values, writes a line of level 0. A message that nests too deep, or holds too many values, to be walked fails too,
// and a further line says so.
//
// Thread-safe, but for a container that another thread changes meanwhile: that may raise an NSException.
bool checkDictionary(const NSDictionary& dictionary);
bool checkArray(const NSArray& array);

namespace velto {

// The same, but within a bound of the caller's.
bool checkDictionaryWithin(WalkBound& bound, const NSDictionary& dictionary);
bool checkArrayWithin(WalkBound& bound, const NSArray& array);
// What an end asks before it sends: the same, and behind the check's lines one of level 2 tells where what failed lies:
// "What is refused lies at orders[2].when".
bool checkMessage(const NSDictionary& message);
// The same without any line: nothing, or what lies where, as in "orders[2].when is of class NSDate".
// Another class may be among what is plain.
std::optional<std::string> whyNotPlain(const NSDictionary& message, const Class& alsoPlain = nil);

}  // namespace velto
