#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "VeltoIPC/Call.h"
#include "calls/CallState.h"
#include "calls/CallsPeer.h"
#include "calls/Incoming.h"
#include "calls/OpenStreams.h"
#include "calls/StreamState.h"
#include "platform/foundation/NSCondition.h"
#include "platform/foundation/ThreadAnnotations.h"
#include "platform/xpc/NSXPCConnection.h"

namespace velto::calls {

// One end of one connection, a client's or a service's: makes calls over it, and hands over those that come. What the
// other end is, one of these or one of the two classes, it finds out itself.
//
// It is the object that its connection exports, and so lives until that has ended. Thread-safe.
class Peer final : public CallsPeer, public std::enable_shared_from_this<Peer> {
 public:
  // Called where callbacks run.
  struct Hooks {
    // Once, when the other end can be talked to, ahead of all that it sends: a client's has its identifier, and knows
    // what the other end can.
    std::function<void()> ready;
    std::function<void(std::shared_ptr<Incoming>)> received;
    // Once, at the end of the connection.
    std::function<void(CallError)> ended;
    // Of a service: once, when the client has said its first word, before it hears any.
    std::function<void()> met = {};
  };

  // With `admitsDescriptors` open descriptors may come. From now on it may be closed.
  static std::shared_ptr<Peer> make(std::shared_ptr<NSXPCConnection> connection, Hooks hooks,
                                    bool admitsDescriptors = false);

  // Takes the connection up, once, as a client or as a service does, which gives the client its identifier when that
  // has said its first word.
  void introduce();
  void serve(const NSString& identifier, bool strictTypes);

  // With a stream, if there is one. The error is that the connection has ended already: the call has not been made, and
  // has not ended. Every other ends the call.
  std::optional<CallError> makeCall(const std::shared_ptr<CallState>& state, const NSDictionary& message,
                                    const std::shared_ptr<StreamState>& stream = nullptr);
  // A message that wants no answer. What becomes of it on the way, if it fails, is told once, where callbacks run.
  void send(const NSDictionary& message, std::function<void(CallError)> failed);
  // Ends the connection; calls under way end as closed.
  void close();
  // The same, and sleeps until the last callback has returned; but not on a thread that may be inside of one. Only
  // where callbacks run on threads of the platform.
  void closeAndWait();

  void deliverOn(const Delivery& delivery) { connection_->deliverOn(delivery); }
  // Called on the thread that learns that a client which was behind keeps up again; must not block. Before anything is
  // sent.
  void setWritableHandler(std::function<void()> handler) { connection_->setWritableHandler(std::move(handler)); }
  bool isWritable() const { return connection_->isWritable(); }
  NSXPCPeer process() const { return connection_->peer(); }
  void perform(std::function<void()> task);

  void connectionID(NSString connectionID, NSDictionary withMessage, VeltoReplyHandler handler) override;
  void connectionError(NSError error) override;
  void setStrictMessageTypesRemote(bool flag) override;
  void connectionUUID(NSString connectionID) override;
  void ping() override;
  void meet(NSDictionary abilities, Answer abilitiesThere) override;
  void call(NSNumber number, NSDictionary terms, NSDictionary message, Answer outcome) override;
  void cancel(NSNumber number) override;
  void item(NSDictionary item, NSNumber ofCall) override;
  void finish(NSNumber call) override;
  void allow(NSNumber items, NSNumber bytes, NSNumber ofCall) override;

 private:
  struct Done {
    Peer& peer;
    ~Done() { peer.taskIsDone(); }
  };
  using Proxy = NSXPCProxy<CallsPeer>;

  Peer(std::shared_ptr<NSXPCConnection> connection, Hooks hooks, bool admitsDescriptors);

  void taskIsDone();
  void takeUp();
  void greet();
  NSDictionary abilities() const;
  // What the other end's strict types forbid in a message.
  std::optional<CallError> wrongTypes(const NSDictionary& message) const;
  // nil from an end that does not know of any.
  void learnAbilities(const NSDictionary& there);
  void tellReadyIfSo();
  void end(const CallError& error);
  void startMessage(const Proxy& proxy, const std::shared_ptr<CallState>& state, const NSDictionary& message);
  void startCall(const Proxy& proxy, const std::shared_ptr<CallState>& state, const NSDictionary& message,
                 const std::shared_ptr<StreamState>& stream);
  // For what nobody waits for.
  std::shared_ptr<Proxy> plainProxy();
  NSString identifier() const;
  void receive(std::uint64_t number, NSDictionary message, std::optional<Incoming::SteadyTime> deadline,
               Incoming::Answer answer, std::shared_ptr<StreamState> stream = nullptr);
  // The call as in the table of streams.
  void connect(std::int64_t call, StreamState& stream);
  std::shared_ptr<StreamState> streamForPeer(std::int64_t number);
  std::optional<CallError> sendItem(std::int64_t call, const NSDictionary& item);
  void itemFailed(std::int64_t call, const CallError& why);
  CallError errorOf(const NSError& error) const;
  // Why the connection has ended.
  CallError endError() const;
  void forget(std::uint64_t number);

  const std::shared_ptr<NSXPCConnection> connection_;
  const bool admitsDescriptors_;
  std::atomic<bool> isClosed_{false};
  std::atomic<bool> strictTypes_{false};
  std::atomic<bool> isOfCalls_{false};
  // That the other end takes descriptors.
  std::atomic<bool> mayGetDescriptors_{false};
  // Held while a call gets its number and is handed over.
  Mutex order_;
  std::uint64_t lastNumber_ VELTO_GUARDED_BY(order_) = 0;
  OpenStreams streams_;

  const NSCondition idle_ = NSCondition::condition();
  // Of those that were to be performed.
  std::size_t tasks_ VELTO_GUARDED_BY(idle_) = 0;
  bool hasEnded_ VELTO_GUARDED_BY(idle_) = false;

  mutable Mutex mutex_;
  Hooks hooks_ VELTO_GUARDED_BY(mutex_);
  NSString identifier_ VELTO_GUARDED_BY(mutex_);
  bool owesIdentifier_ VELTO_GUARDED_BY(mutex_) = false;
  bool knowsAbilities_ VELTO_GUARDED_BY(mutex_) = false;
  // Calls of the other end that are not answered, for it to take back.
  std::unordered_map<std::uint64_t, std::weak_ptr<Incoming>> incoming_ VELTO_GUARDED_BY(mutex_);
  // The greatest number of one that has had its turn, and those taken back before they have.
  std::uint64_t lastReceived_ VELTO_GUARDED_BY(mutex_) = 0;
  std::unordered_set<std::uint64_t> cancelled_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::calls
