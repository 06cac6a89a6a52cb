#pragma once

#include <condition_variable>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VeltoIPC/VeltoIPC.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace velto::testing {

// A listener or a client that is driven by lines of text, so that one and the same test can drive it in this process
// and in another. A line is a command and its words; the answer is a line too.
//
//   listen NAME [any]         makes it a listener; the name is registered when it answers. "any": types are not strict
//   connect NAME              makes it a client
//   ready SECONDS             "yes", or the error
//   id                        the client's identifier
//   sync SECONDS PAYLOAD [ID]   "reply PAYLOAD", or the error; ID names the client that a listener sends to
//   async PAYLOAD [ID]        "sent", or the error; the reply comes as an event
//   burst COUNT               so many synchronous echoes; "done", or what went wrong
//   await COUNT EVENT         "seen" once so many events begin like that; otherwise all events there were
//   count EVENT               how many events begin like that
//   list EVENT                the events that begin like that, with "|" between them
//   active ID                 "yes" or "no": whether a listener has this connection
//   answer                    answers the messages that are held, in their order
//   types strict|any          a listener's rule for its messages, and for clients to come; "done"
//   close [ID]                closes it, or one connection of it
//
// Events: "ready ID", "message PAYLOAD from ID", "reply PAYLOAD", "error ID CODE TEXT".
// An error reads "error CODE TEXT".
//
// A payload is WORD:TEXT. What the receiving end does with it goes by the word: "echo", "date" (a message that holds a
// date), "bytes" (TEXT bytes of data) are answered with themselves; "hold" waits for the command `answer`; "silence" is
// never answered; "nest:N" is sent back from inside the callback as "nest:N-1", down to 0, and answered after that;
// "finish" closes the connection from inside the callback.
class End {
 public:
  End();
  ~End();
  End(const End&) = delete;
  End& operator=(const End&) = delete;

  std::string perform(const std::string& line);

 private:
  class Delegate;
  struct State;
  using Words = std::vector<std::string>;

  std::string listen(const Words& words);
  std::string connect(const Words& words);
  std::string sync(const Words& words);
  std::string async(const Words& words);
  std::string burst(const Words& words);
  std::string answer();
  std::string close(const Words& words);

  const std::shared_ptr<State> state_;
};

}  // namespace velto::testing
