// The end of bodies. What is destroyed by code of others (the destructor of a class of one's own, the deleter of
// borrowed bytes) may let go of handles itself, and so come here again on the same thread: from within such code,
// nothing else of that kind is destroyed at once, but once that code has returned.
#include "platform/foundation/Demolition.h"

#include <bit>

#include "platform/foundation/ArrayBody.h"
#include "platform/foundation/DataBody.h"
#include "platform/foundation/KeyedBody.h"
#include "platform/foundation/ObjectBody.h"
#include "platform/foundation/PlainBodies.h"
#include "platform/foundation/StringBody.h"

namespace velto {
namespace {

// Both are trivially destroyed: they still serve when a thread ends and other thread-local objects let go of theirs.
thread_local bool runsForeignCode = false;
thread_local const Body* deferred = nullptr;

bool isForeign(const Body& body) noexcept {
  if (body.tag() == Tag::object) return true;
  return body.tag() == Tag::data && static_cast<const DataBody&>(body).isLent();
}

}  // namespace

void Body::destroy(const Body& body) noexcept {
  if (body.isInRegion()) {
    std::bit_cast<Region*>(body.references_.load(std::memory_order_relaxed))->drop();
  } else {
    Demolition().run(body);
  }
}

void Demolition::letGo(const Value& value) noexcept {
  if (!value.isCounted()) return;
  const Body& body = value.body();
  if (!isLastReference(body.counter())) return;
  if (body.isInRegion()) return Body::destroy(body);
  body.references_.store(reinterpret_cast<std::uintptr_t>(pending_), std::memory_order_relaxed);
  pending_ = &body;
}

void Demolition::run(const Body& body) noexcept {
  for (const Body* each = &body; each != nullptr;) {
    dismantle(*each);
    each = pending_;
    if (each != nullptr) pending_ = std::bit_cast<const Body*>(each->references_.load(std::memory_order_relaxed));
  }
}

void Demolition::dismantle(const Body& body) noexcept {
  if (isForeign(body)) {
    if (runsForeignCode) {
      body.references_.store(reinterpret_cast<std::uintptr_t>(deferred), std::memory_order_relaxed);
      deferred = &body;
      return;
    }
    runsForeignCode = true;
    for (const Body* each = &body; each != nullptr;) {
      if (each->tag() == Tag::object) {
        delete static_cast<const ObjectBody*>(each);
      } else {
        static_cast<const DataBody*>(each)->dismantle();
      }
      each = deferred;
      if (each != nullptr) deferred = std::bit_cast<const Body*>(each->references_.load(std::memory_order_relaxed));
    }
    runsForeignCode = false;
    return;
  }
  switch (body.tag()) {
    case Tag::string:
      return static_cast<const StringBody&>(body).dismantle();
    case Tag::mutableString:
      return static_cast<const MutableStringBody&>(body).dismantle();
    case Tag::array:
      return static_cast<const ArrayBody&>(body).dismantle(*this);
    case Tag::mutableArray:
      return static_cast<const MutableArrayBody&>(body).dismantle(*this);
    case Tag::dictionary:
    case Tag::set:
      return static_cast<const KeyedBody&>(body).dismantle(*this);
    case Tag::mutableDictionary:
    case Tag::mutableSet:
      return static_cast<const MutableKeyedBody&>(body).dismantle(*this);
    case Tag::data:
      return static_cast<const DataBody&>(body).dismantle();
    case Tag::mutableData:
      return static_cast<const MutableDataBody&>(body).dismantle();
    case Tag::date:
      return static_cast<const DateBody&>(body).dismantle();
    case Tag::uuid:
      return static_cast<const UUIDBody&>(body).dismantle();
    case Tag::url:
      return static_cast<const URLBody&>(body).dismantle(*this);
    case Tag::error:
      return static_cast<const ErrorBody&>(body).dismantle(*this);
    default:
      return;
  }
}

void ArrayBody::dismantle(Demolition& demolition) const noexcept {
  demolition.letGoOfDying(elements());
  releaseBody(*this, sizeFor(count_));
}

void MutableArrayBody::dismantle(Demolition& demolition) const noexcept {
  demolition.letGo(elements_);
  delete this;
}

void KeyedBody::dismantle(Demolition& demolition) const noexcept {
  demolition.letGoOfDying({table().keys(), count_ * stride()});
  releaseBody(*this, sizeFor(tag(), capacity_));
}

void MutableKeyedBody::dismantle(Demolition& demolition) const noexcept {
  demolition.letGo(objects_);
  delete this;
}

void URLBody::dismantle(Demolition& demolition) const noexcept {
  demolition.letGo({&text_, 1});
  releaseBody(*this, sizeof(URLBody));
}

void ErrorBody::dismantle(Demolition& demolition) const noexcept {
  demolition.letGo({&domain_, 1});
  demolition.letGo({&userInfo_, 1});
  releaseBody(*this, sizeof(ErrorBody));
}

}  // namespace velto
