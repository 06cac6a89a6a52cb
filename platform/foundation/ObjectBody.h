#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "platform/foundation/Export.h"

namespace velto {

class ClassBody;
class WalkBound;

// What a value handle (NSObject and its subclasses) points to: a reference count, a monitor made at first use, and the
// answers that differ from class to class. Derive from it to write a class of your own: classBody() is then that of a
// class that Class::define() made for it, and the handle is a subclass of NSObject that holds nothing but the
// reference. A body is destroyed on whichever thread lets go of it last; what
// the destructor of a body lets go of is destroyed once that destructor has returned.
//
// The walks (isEqual, describe) carry a WalkBound, because containers nest as deep as their maker likes and may even
// hold themselves: pass it on to every element visited.
class VELTO_EXPORT ObjectBody {
 public:
  ObjectBody() = default;
  virtual ~ObjectBody();
  ObjectBody(const ObjectBody&) = delete;
  ObjectBody& operator=(const ObjectBody&) = delete;

  virtual const ClassBody& classBody() const = 0;
  // `other` is never this very body. The default is identity: false.
  virtual bool isEqual(const ObjectBody& other, WalkBound& bound) const;
  // Equal bodies have equal hashes. The default is the address.
  virtual std::size_t hash() const;
  // Appends the text that "%@" prints. The default is "<ClassName: 0xaddress>".
  virtual void describe(std::string& out, WalkBound& bound) const;

  void retain() const noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  void release() const noexcept {
    if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy();
  }

  // The object's recursive lock, made when it is first asked for (see NSSynchronized).
  std::recursive_mutex& monitor() const;

 private:
  // Destroys without recursion, however deep this body's contents nest.
  void destroy() const noexcept;
  void discardMonitor() const noexcept;

  mutable std::atomic<std::uint32_t> references_{0};
  // The monitor while the body lives; the next body to destroy once it waits for its own destruction.
  mutable std::atomic<void*> monitorOrNext_{nullptr};
};

// Owns one reference to a body; empty is nil.
template <class T>
class Reference {
 public:
  constexpr Reference() noexcept = default;
  explicit Reference(T* body) noexcept : body_(body) {
    if (body_ != nullptr) body_->retain();
  }
  Reference(const Reference& other) noexcept : Reference(other.body_) {}
  Reference(Reference&& other) noexcept : body_(std::exchange(other.body_, nullptr)) {}
  Reference& operator=(Reference other) noexcept {
    std::swap(body_, other.body_);
    return *this;
  }
  ~Reference() {
    if (body_ != nullptr) body_->release();
  }

  T* get() const noexcept { return body_; }
  T* operator->() const noexcept { return body_; }
  explicit operator bool() const noexcept { return body_ != nullptr; }

 private:
  T* body_ = nullptr;
};

}  // namespace velto
