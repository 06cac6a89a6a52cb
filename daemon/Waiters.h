#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "broker/VeltoIPCNamesProtocol.h"
#include "daemon/Ledger.h"
#include "platform/xpc/DelayedCall.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"

namespace velto {

// Who registers and waits.
class Registrant;

// What stands under a name, and who can be reached by it.
struct Standing {
  NameState state;
  NSXPCListenerEndpoint endpoint;
  // Whether nobody can come again who had the name later.
  bool isCertain = true;
};

// Those that wait for another state of a name than the one that stands. So every change ends all waiters of its name,
// and nobody needs to know what they wait for.
//
// Of one thread. Adding one that throws has changed nothing; taking out needs no memory.
class Waiters {
 public:
  using Item = Ledger::Item;
  // Without what stands when the waiter is not to wait any longer.
  using Answer = std::function<void(const std::optional<Standing>&)>;
  struct Waiter {
    Answer answer;
    const Registrant* link = nullptr;
    std::shared_ptr<xpc::DelayedCall> timeOut = nullptr;
  };

 private:
  using Place = std::pair<std::string_view, Item>;
  struct Less {
    using is_transparent = void;
    template <class A, class B>
    bool operator()(const A& one, const B& other) const {
      return Place(one.first, one.second) < Place(other.first, other.second);
    }
  };

 public:
  // In the order of their names, and of when they came.
  using Some = std::map<std::pair<std::string, Item>, Waiter, Less>;

  void add(const std::string& name, Item item, Waiter waiter);
  // Null when it does not wait any more.
  Waiter* find(std::string_view name, Item item);
  // Moves out of here: one; all of a name; all of a link.
  void takeOut(std::string_view name, Item item, Some& taken);
  void takeOutOfName(std::string_view name, Some& taken);
  void takeOutOfLink(const Registrant& link, Some& taken);
  std::size_t count() const noexcept { return all_.size(); }

  // Answers each, whatever becomes of the others.
  static void tell(const Some& waiters, const std::optional<Standing>& standing);

 private:
  void takeOut(Some::const_iterator waiter, Some& taken);

  Some all_;
  std::map<std::pair<const Registrant*, Item>, Some::const_iterator> ofLinks_;
};

}  // namespace velto
