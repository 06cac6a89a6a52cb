#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "platform/foundation/Export.h"
#include "platform/foundation/Value.h"

namespace velto {

class ClassBody;
class WalkBound;

// The body of an object of a class of your own, and of the platform's objects that are no plain values. Derive from it
// to write one: classBody() is then that of a class that Class::define() made for it, and the handle is a subclass of
// NSObject that holds nothing but the reference. A body is destroyed on whichever thread lets go of it last; what the
// destructor of a body lets go of is destroyed once that destructor has returned.
//
// The walks (isEqual, describe) carry a WalkBound, because containers nest as deep as their maker likes and may even
// hold themselves: pass it on to every element visited.
class VELTO_EXPORT ObjectBody : public Body {
 public:
  ObjectBody() noexcept : Body(Tag::object, std::uint64_t{0}) {}
  virtual ~ObjectBody();

  virtual const ClassBody& classBody() const = 0;
  // `other` is never this very body. The default is identity: false.
  virtual bool isEqual(const ObjectBody& other, WalkBound& bound) const;
  // Equal bodies have equal hashes. The default is the address.
  virtual std::size_t hash() const;
  // Appends the text that "%@" prints. The default is "<ClassName: 0xaddress>".
  virtual void describe(std::string& out, WalkBound& bound) const;

  // The object's recursive lock, made when it is first asked for (see NSSynchronized).
  std::recursive_mutex& monitor() const;

 private:
  mutable std::atomic<std::recursive_mutex*> monitor_{nullptr};
};

}  // namespace velto
