// Callbacks about different clients run side by side, so what they share (the counters, the open questions) has a lock.
// A callback about one client may take its time: only that client waits.

#include "examples/machine/MachineService.h"

#include <chrono>
#include <functional>
#include <string>
#include <utility>

#include "examples/machine/FileChunks.h"
#include "examples/machine/MachineFacts.h"

namespace machine {

namespace {

constexpr double kClientAnswerSeconds = 5.0;

using Answer = std::function<NSDictionary(const NSDictionary& message)>;

// The questions whose answer can be given at once.
const std::map<std::string, Answer>& answers() {
  static const std::map<std::string, Answer> table{
      {"load", [](const NSDictionary&) { return load(); }},
      {"memory", [](const NSDictionary&) { return memory(); }},
      {"uptime", [](const NSDictionary&) { return uptime(); }},
      {"processor", [](const NSDictionary&) { return processor(); }},
      {"process", [](const NSDictionary& message) { return process(message["number"].integerValue()); }},
      {"file", [](const NSDictionary& message) { return describeFile(message["path"].stringValue()); }},
      {"chunk",
       [](const NSDictionary& message) {
         return readChunk(message["path"].stringValue(), message["number"].integerValue());
       }},
  };
  return table;
}

}  // namespace

MachineService::MachineService(Transcript& transcript) : transcript_(transcript) {}

void MachineService::start(const std::shared_ptr<VeltoIPCDelegate>& self) {
  listener_ = VeltoListener::initWithServiceName(kServiceName, self);
}

bool MachineService::waitForClients(int count, double seconds) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                           [this, count] { return comeClients_ >= count && goneClients_ == comeClients_; });
}

void MachineService::stop() {
  listener_->close();
}

void MachineService::connectionReady(NSString connectionID) {
  transcript_.say(NSString::stringWithFormat("ready for connection %@", connectionID));
  const std::lock_guard lock(mutex_);
  ++comeClients_;
}

void MachineService::receivedMessage(NSDictionary message, NSString fromConnection, VeltoReplyHandler usingHandler) {
  const std::string question = message["question"].stringValue();
  const auto answer = answers().find(question);
  if (answer != answers().end()) {
    usingHandler(answer->second(message));
  } else if (question == "who am I") {
    recogniseClient(fromConnection, usingHandler);
  } else if (question == "when will you stop") {
    // Nobody knows. Keeping the handler keeps the question open; the client decides how long it waits.
    const std::lock_guard lock(mutex_);
    openQuestions_.push_back(std::move(usingHandler));
  } else if (question == "please close") {
    farewell(fromConnection, usingHandler);
  } else {
    usingHandler({{"error", "unknown question: " + question}});
  }
}

// Asks back before it answers: a synchronous send inside a callback, to the very client whose message is being handled.
void MachineService::recogniseClient(const NSString& connectionID, const VeltoReplyHandler& usingHandler) {
  NSError error;
  const NSDictionary reply =
      listener_->sendMessageSync({{"question", "process number"}}, connectionID, kClientAnswerSeconds, &error);
  const NSDictionary found = process(reply["number"].integerValue());
  transcript_.check(found["name"].count() > 0,
                    NSString::stringWithFormat("asked the client for its process number; it replied %@, which is %@",
                                               reply["number"], found["name"]),
                    error);
  usingHandler(found);
}

// The reply still goes out: closing waits in the background for what was handed over before it.
void MachineService::farewell(const NSString& connectionID, const VeltoReplyHandler& usingHandler) {
  usingHandler({{"text", "goodbye"}});
  transcript_.say(NSString::stringWithFormat("closes connection %@ as asked", connectionID));
  listener_->close(connectionID);
}

void MachineService::connectionError(NSString connectionID, NSError error) {
  if (!connectionID) {
    transcript_.say(NSString::stringWithFormat("hears: %@", error.localizedDescription()));
    return;
  }
  const NSString text = error.localizedDescription();
  transcript_.check(text == NSString("Connection invalidated"),
                    NSString::stringWithFormat("saw connection %@ end in good order", connectionID), error);
  const std::lock_guard lock(mutex_);
  ++goneClients_;
  changed_.notify_all();
}

}  // namespace machine
