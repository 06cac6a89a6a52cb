#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/foundation/Foundation.h"

class NSXPCInterface;

// A protocol is an abstract C++ class and one table that lists its methods. From the table come the proxy that sends,
// the dispatcher that receives, and the default class sets of an interface. To add a method: one virtual function in
// the class, one line in the table.
//
//   class Greeter {
//    public:
//     virtual ~Greeter() = default;
//     virtual void greet(NSString name, std::function<void(NSString)> reply) = 0;
//     virtual void wave() { throw NSXPCUnrecognizedSelector("wave"); }     // optional
//   };
//   template <>
//   const velto::xpc::Protocol& velto::xpc::protocolOf<Greeter>() {
//     static const Protocol& table = *new Protocol("Greeter", {
//         method<&Greeter::greet>("greet:reply:", Requirement::required),
//         method<&Greeter::wave>("wave", Requirement::optional, Way::oneWay),
//     });
//     return table;
//   }
//
// A method returns void. Its arguments are objects (NSString, NSDictionary, any value class), bool, an endpoint or a
// file descriptor; the last may be a reply block, a std::function that takes one object and returns nothing.

// What an optional method that an object does not implement throws. The caller's end then hears that the method is
// lacking.
class VELTO_EXPORT NSXPCUnrecognizedSelector : public NSException {
 public:
  explicit NSXPCUnrecognizedSelector(std::string selector)
      : NSException("NSInvalidArgumentException", "unrecognized selector " + selector),
        selector_(std::move(selector)) {}
  const std::string& selector() const noexcept { return selector_; }

 private:
  std::string selector_;
};

// What a method throws to refuse the call that it is running for: the caller's proxy error handler gets the reason.
class VELTO_EXPORT NSXPCRefusal : public NSException {
 public:
  explicit NSXPCRefusal(const std::string& reason) : NSException("NSXPCRefusal", reason) {}
};

namespace velto {

// Marks a reply block as one that never blocks, nor takes a lock that is held for long: it runs at once on the thread
// that reads its connection, which may be one that waits for another reply, ahead of what waits in the connection's
// queue. Give it where a std::function is asked for; as the error handler of a proxy it runs at once, too, on the
// thread that finds the failure.
template <class Argument>
struct NonBlockingReply {
  std::function<void(Argument)> block;
  // Instead of the block, in the same way, when the other end has let go of its own unused.
  std::function<void()> dropped = {};

  void operator()(Argument argument) const { block(std::move(argument)); }
};

// A reply block that does nothing, and says so: nobody waits for the reply, so the call may be gathered with others.
// Give it where a std::function is asked for.
template <class Argument>
struct IgnoredReply {
  void operator()(const Argument&) const noexcept {}
};

}  // namespace velto

namespace velto::xpc {

enum class Requirement { required, optional };
// One-way: the caller never waits for the callee. All calls here are sent without waiting; the table states what the
// protocol promises.
//
// Two do not wait for their turn: their callee never blocks, nor takes a lock that is held for long, and runs at once
// on the thread that reads its connection. Prompt: unless a call that came before has not been dealt with, so that the
// order of the calls stays; one that came before the connection was resumed runs on the thread that resumes it. It is
// the callee's own affair. Ahead: ahead of what waits. Both ends know that, since such calls have a credit of their
// own.
enum class Way { twoWay, oneWay, prompt, ahead };

// A reply block that has forgotten its argument's type.
struct ReplyBlock {
  std::function<void(const NSObject&)> block;
  bool neverBlocks = false;
  // It does nothing.
  bool isIgnored = false;
  // Tells the block that no answer will come; null when it does not care.
  void (*tellDropped)(const std::function<void(const NSObject&)>& block) = nullptr;

  static ReplyBlock ignored() {
    return {[](const NSObject&) {}, true, true, nullptr};
  }
  explicit operator bool() const noexcept { return static_cast<bool>(block); }
};

// How one argument looks: the class that it must be of.
struct Parameter {
  Class classObject;
};

struct Method {
  std::string selector;
  Requirement requirement = Requirement::required;
  Way way = Way::twoWay;
  std::vector<Parameter> parameters;
  // Of the reply block, if there is one.
  std::vector<Parameter> replyParameters;
  // Identifies the member function.
  const void* member = nullptr;
  // Calls it on an object of the protocol's class. The arguments have been checked; nil is allowed anywhere.
  void (*invoke)(void* object, std::span<const NSObject> arguments, ReplyBlock reply) = nullptr;

  bool hasReply() const noexcept { return !replyParameters.empty(); }
};

class VELTO_EXPORT Protocol {
 public:
  Protocol(std::string name, std::vector<Method> methods);

  const std::string& name() const noexcept { return name_; }
  const std::vector<Method>& methods() const noexcept { return methods_; }
  // Whether there are methods whose calls do not wait for their turn.
  bool hasAhead() const noexcept { return hasAhead_; }
  // nullptr when there is none.
  const Method* methodForSelector(std::string_view selector) const noexcept;
  const Method* methodForMember(const void* member) const noexcept;

 private:
  friend class ::NSXPCInterface;

  bool hasAhead_ = false;
  std::string name_;
  std::vector<Method> methods_;
  // What every interface of it begins with, once there has been one.
  mutable std::once_flag hasDefaults_;
  mutable std::shared_ptr<const void> defaults_;
};

// The table of a protocol's class: specialise it once per protocol.
template <class P>
const Protocol& protocolOf();

namespace detail {

template <auto Member>
inline constexpr char memberKey = 0;

// How an argument's type maps to objects.
template <class T>
struct ArgumentType {
  static_assert(std::is_base_of_v<NSObject, T>, "an argument is an object, a bool, or, as the last, a reply block");
  static Parameter parameter() { return {T::classObject()}; }
  static NSObject toObject(const T& value) { return value; }
  static T fromObject(const NSObject& object) { return object.as<T>(); }
};
template <>
struct ArgumentType<bool> {
  static Parameter parameter() { return {NSNumber::classObject()}; }
  static NSObject toObject(bool value) { return value; }
  static bool fromObject(const NSObject& object) { return object.boolValue(); }
};

template <class T>
struct ReplyType {
  static constexpr bool isReply = false;
};
template <class R>
struct ReplyType<std::function<void(R)>> {
  static constexpr bool isReply = true;
  using Argument = R;

  struct Erased {
    std::function<void(R)> reply;
    void operator()(const NSObject& value) const { reply(ArgumentType<R>::fromObject(value)); }
  };
  static void tellDropped(const std::function<void(const NSObject&)>& block) {
    block.template target<Erased>()->reply.template target<NonBlockingReply<R>>()->dropped();
  }

  static ReplyBlock erase(std::function<void(R)> reply) {
    if (!reply) return {};
    if (reply.template target<IgnoredReply<R>>() != nullptr) return ReplyBlock::ignored();
    const auto* const nonBlocking = reply.template target<NonBlockingReply<R>>();
    const auto drop = nonBlocking != nullptr && nonBlocking->dropped ? &tellDropped : nullptr;
    return {Erased{std::move(reply)}, nonBlocking != nullptr, false, drop};
  }
  static std::function<void(R)> restore(ReplyBlock reply) {
    if (!reply) return {};
    if (reply.isIgnored) return IgnoredReply<R>();
    return [block = std::move(reply.block)](R value) { block(ArgumentType<R>::toObject(value)); };
  }
};

template <class T>
T argumentAt(std::span<const NSObject> arguments, std::size_t index, ReplyBlock& reply) {
  if constexpr (ReplyType<T>::isReply) {
    return ReplyType<T>::restore(std::move(reply));
  } else {
    return ArgumentType<T>::fromObject(arguments[index]);
  }
}

template <class T>
void appendParameter(Method& method) {
  if constexpr (ReplyType<T>::isReply) {
    method.replyParameters.push_back(ArgumentType<typename ReplyType<T>::Argument>::parameter());
  } else {
    method.parameters.push_back(ArgumentType<T>::parameter());
  }
}

// Puts a value, which may still have to become one of the argument's type, where the next argument goes.
template <class T, class Value>
void putArgument(NSObject*& next, ReplyBlock& reply, Value&& value) {
  if constexpr (ReplyType<T>::isReply) {
    T block = std::forward<Value>(value);
    reply = ReplyType<T>::erase(std::move(block));
  } else if constexpr (std::is_same_v<std::decay_t<Value>, T>) {
    *next++ = ArgumentType<T>::toObject(value);
  } else {
    const T made = std::forward<Value>(value);
    *next++ = ArgumentType<T>::toObject(made);
  }
}

template <class M>
struct MemberType;
template <class P, class... A>
struct MemberType<void (P::*)(A...)> {
  using ProtocolClass = P;

  template <auto Member>
  static void invoke(void* object, std::span<const NSObject> arguments, ReplyBlock reply) {
    invokeWith<Member>(static_cast<P*>(object), arguments, reply, std::index_sequence_for<A...>());
  }
  static void describe(Method& method) { (appendParameter<std::decay_t<A>>(method), ...); }
  static constexpr std::size_t kObjects = (std::size_t{!ReplyType<std::decay_t<A>>::isReply} + ... + 0);
  template <class... Values>
  static std::array<NSObject, kObjects> pack(ReplyBlock& reply, Values&&... values) {
    static_assert(sizeof...(Values) == sizeof...(A), "the method takes other arguments");
    std::array<NSObject, kObjects> arguments;
    [[maybe_unused]] NSObject* next = arguments.data();
    (putArgument<std::decay_t<A>>(next, reply, std::forward<Values>(values)), ...);
    return arguments;
  }

 private:
  template <auto Member, std::size_t... Index>
  static void invokeWith(P* object, [[maybe_unused]] std::span<const NSObject> arguments,
                         [[maybe_unused]] ReplyBlock& reply, std::index_sequence<Index...>) {
    (object->*Member)(argumentAt<std::decay_t<A>>(arguments, Index, reply)...);
  }
};

}  // namespace detail

// One line of a protocol's table.
template <auto Member>
Method method(std::string selector, Requirement requirement, Way way = Way::twoWay) {
  Method made;
  made.selector = std::move(selector);
  made.requirement = requirement;
  made.way = way;
  made.member = &detail::memberKey<Member>;
  made.invoke = &detail::MemberType<decltype(Member)>::template invoke<Member>;
  detail::MemberType<decltype(Member)>::describe(made);
  return made;
}

}  // namespace velto::xpc
