// Both ends of one fuzzed connection. The checks at its end are the promises of the public header: each handler once at
// most and in order, each call settled once, everything let go of, every descriptor closed; and a connection that was
// not ended still answers.

#include "fuzz/support/Session.h"

#include <algorithm>
#include <string>
#include <utility>

#include "fuzz/support/ReactorDriver.h"
#include "fuzz/support/Require.h"
#include "platform/xpc/NSXPCListener.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::fuzzing {

namespace {

FakeKernel& kernel() {
  return FakeKernel::shared();
}

Session* current = nullptr;
std::size_t openAtRest = 0;

constexpr std::uint64_t kProbe = 0x7000'0000'0000'0001;

}  // namespace

// Hands accepted connections to the session that is going on.
class Acceptor final : public NSXPCListenerDelegate {
 public:
  bool listener(const std::shared_ptr<NSXPCListener>&,
                const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) override {
    require(current != nullptr, "a connection is handed over while its session lasts");
    return current->accept(shouldAcceptNewConnection);
  }
};

void Session::prepare() {
  ReactorDriver::takeOver();
  static const auto& acceptor = *new std::shared_ptr<Acceptor>(std::make_shared<Acceptor>());
  static const auto& listener = *new std::shared_ptr<NSXPCListener>(NSXPCListener::anonymousListener());
  require(listener != nullptr, "there is a listener");
  listener->setDelegate(acceptor);
  listener->resume();
  ReactorDriver::runUntilIdle();
  openAtRest = kernel().openDescriptors();
}

Session::Session(Role role, bool userRefuses, bool userIsSlow)
    : role_(role), userRefuses_(userRefuses), userIsSlow_(userIsSlow) {
  current = this;
  if (role_ == Role::accepts) {
    stream_ = kernel().connects();
  } else {
    const auto owned = [](ObjectKind kind) {
      return std::make_shared<const system::Descriptor>(
          system::Descriptor(kernel().open(std::make_shared<KernelObject>(kind))));
    };
    connection_ = NSXPCConnection::initWithListenerEndpoint(
        NSXPCListenerEndpoint::endpointWithDescriptors(owned(ObjectKind::handle), owned(ObjectKind::readEnd)));
    configure();
    if (!userIsSlow_) resume();
  }
  ReactorDriver::runUntilIdle();
}

Session::~Session() {
  current = nullptr;
}

bool Session::accept(const std::shared_ptr<NSXPCConnection>& connection) {
  if (userRefuses_) return false;
  connection_ = connection;
  configure();
  if (!userIsSlow_) resume();
  return true;
}

void Session::configure() {
  isConfigured_ = true;
  connection_->setExportedInterface(Subject::interface());
  connection_->setExportedObject<Subject>(exported_);
  connection_->setRemoteObjectInterface(Subject::interface());
  connection_->setInterruptionHandler([events = events_] {
    require(events->invalidations == 0, "the interruption comes before the invalidation");
    ++events->interruptions;
  });
  connection_->setInvalidationHandler([events = events_] { ++events->invalidations; });
}

void Session::resume() {
  if (!connection_ || isResumed_) return;
  isResumed_ = true;
  kernel().connected = nullptr;
  connection_->resume();
  ReactorDriver::runUntilIdle();
  if (role_ == Role::connects) stream_ = std::exchange(kernel().connected, nullptr);
}

void Session::send(Bytes bytes, std::vector<SharedObject> objects, bool truncated) {
  if (!stream_ || stream_->hasEnded) return;
  const bool hadGreeted = words_.hasGreeted();
  words_.said(bytes);
  while (!bytes.empty()) {
    const Bytes piece = bytes.first(pieceBytes_ == 0 ? bytes.size() : std::min(pieceBytes_, bytes.size()));
    bytes = bytes.subspan(piece.size());
    kernel().arrives(stream_, {{piece.begin(), piece.end()}, std::exchange(objects, {}), truncated});
    ReactorDriver::runUntilIdle();
  }
  if (words_.hasGreeted() && !hadGreeted) heardHelloAt_ = stream_->sent.size();
  if (words_.isBroken()) require(stream_->isClosed, "a header that breaks the protocol ends the connection");
}

void Session::sayHello() {
  send(frameBytes(wire::Hello::ours().encode()));
}

void Session::hangUp(int error) {
  if (!stream_) return;
  kernel().ends(stream_, error);
  ReactorDriver::runUntilIdle();
}

void Session::giveRoom(std::size_t bytes) {
  if (!stream_) return;
  if (bytes != SIZE_MAX) roomWasShort_ = true;
  kernel().roomArrives(stream_, bytes);
  ReactorDriver::runUntilIdle();
}

void Session::failNextSend(int error) {
  if (!stream_) return;
  roomWasShort_ = true;
  stream_->sendError = error;
}

std::shared_ptr<NSXPCProxy<Subject>> Session::proxyFor(const std::shared_ptr<Outgoing>& call) {
  calls_.push_back(call);
  return connection_->remoteObjectProxyWithErrorHandler<Subject>([call](const NSError& error) {
    require(!error.isNil() && error.localizedDescription().length() > 0, "an error says what is wrong");
    ++call->errors;
  });
}

template <auto Method, class Answer, class Argument>
void Session::call(const Argument& argument) {
  if (!connection_) return;
  const auto call = std::make_shared<Outgoing>();
  call->wantsReply = true;
  proxyFor(call)->template call<Method>(argument, std::function<void(Answer)>([call](const Answer& answer) {
                                          static_cast<void>(answer.description());
                                          ++call->replies;
                                        }));
  ReactorDriver::runUntilIdle();
}

template <auto Method, class Argument>
void Session::callOneWay(const Argument& argument) {
  if (!connection_) return;
  proxyFor(std::make_shared<Outgoing>())->template call<Method>(argument);
  ReactorDriver::runUntilIdle();
}

void Session::greet() {
  call<&Subject::greet, NSString>(NSString("peer"));
}

void Session::callKeep(std::size_t bytes) {
  call<&Subject::keep, NSDictionary>(NSDictionary{{"payload", std::string(bytes, 'x')}});
}

void Session::tell(std::size_t bytes) {
  callOneWay<&Subject::tell>(NSDictionary{{"payload", std::string(bytes, 'x')}});
}

void Session::introduce() {
  const auto owned = [](ObjectKind kind) {
    return std::make_shared<const system::Descriptor>(
        system::Descriptor(kernel().open(std::make_shared<KernelObject>(kind))));
  };
  call<&Subject::introduce, NSXPCListenerEndpoint>(
      NSXPCListenerEndpoint::endpointWithDescriptors(owned(ObjectKind::handle), owned(ObjectKind::readEnd)));
}

void Session::sendWhatCannotTravel() {
  call<&Subject::echo, NSObject>(NSArray{NSObject::classObject()});
}

void Session::answerKept(unsigned times) {
  if (!exported_ || exported_->kept.empty()) return;
  const auto reply = std::move(exported_->kept.front());
  exported_->kept.pop_front();
  for (unsigned count = 0; count < times; ++count) reply(NSDictionary{{"answer", count}});
  ReactorDriver::runUntilIdle();
}

void Session::dropKept() {
  if (!exported_ || exported_->kept.empty()) return;
  exported_->kept.pop_front();
  ReactorDriver::runUntilIdle();
}

void Session::invalidate() {
  if (!connection_) return;
  isInvalidated_ = true;
  connection_->invalidate();
  ReactorDriver::runUntilIdle();
}

void Session::letGo() {
  if (!connection_) return;
  isInvalidated_ = true;
  connection_.reset();
  ReactorDriver::runUntilIdle();
}

void Session::probe() {
  if (stream_->isClosed || stream_->hasEnded || isInvalidated_) return;
  if (!isConfigured_ || !isResumed_ || events_->invalidations > 0) return;
  if (words_.isBroken() || !words_.isAtBoundary() || !words_.hasGreeted()) return;
  wire::ValueEncoder encoder(wire::FrameType::call);
  wire::encodeCallHeader(encoder, {kProbe, "greet:reply:", true});
  encoder.add("probe");
  setPieces(0);
  send(frameBytes(encoder.take()));
  require(!stream_->isClosed, "a sound call does not end the connection");
  const LibraryWords answer = checkedWords(stream_->sent, words_, SIZE_MAX, true);
  require(answer.settled.contains(kProbe), "a connection that was not ended still answers");
}

void Session::finish() {
  if (stream_) stream_->sendError = 0;
  giveRoom(SIZE_MAX);
  ReactorDriver::letTimePass();
  if (role_ == Role::connects && !stream_) stream_ = std::exchange(kernel().connected, nullptr);
  if (stream_) probe();
  hangUp(0);
  if (isConfigured_ && isResumed_) require(events_->invalidations == 1, "the end is told, once");
  letGo();
  if (exported_) exported_->kept.clear();
  exported_.reset();
  ReactorDriver::runUntilIdle();
  ReactorDriver::letTimePass();
  require(!ReactorDriver::hasTimers(), "nothing waits for a time when all is over");
  if (isConfigured_) require(events_->invalidations == 1, "the invalidation handler runs once");
  require(events_->interruptions <= 1, "the interruption handler runs once at most");
  require(exportedLife_.expired(), "the exported object is let go of");
  checkCalls();
  if (stream_) {
    require(stream_->isClosed, "the socket is closed");
    const LibraryWords said = checkedWords(stream_->sent, words_, roomWasShort_ ? SIZE_MAX : heardHelloAt_, false);
    require(said.calls <= calls_.size(), "a call is sent once");
  }
  stream_.reset();
  require(kernel().openDescriptors() == openAtRest, "no descriptor stays open");
}

void Session::checkCalls() const {
  for (std::size_t index = 0; index < calls_.size(); ++index) {
    const Outgoing& call = *calls_[index];
    require(call.replies + call.errors <= 1, "nothing is reported twice for one call");
    if (!call.wantsReply || words_.dropped.contains(index + 1)) continue;
    require(call.replies + call.errors == 1, "a call that wants a reply is settled");
  }
}

}  // namespace velto::fuzzing
