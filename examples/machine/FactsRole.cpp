// The synchronous half of the library: a request is a function call, and what goes wrong is in its error.

#include "examples/machine/Roles.h"

namespace machine {

namespace {

void askFor(VeltoConnection& connection, Transcript& transcript, const char* question, const char* expectedKey) {
  NSError error;
  const NSDictionary reply = connection.sendMessageSync({{"question", question}}, kAnswerSeconds, &error);
  transcript.check(!reply[expectedKey].isNil(),
                   NSString::stringWithFormat("asked for the %s; synchronous reply: %@", question, reply), error);
}

void askWhoIAm(VeltoConnection& connection, ClientEvents& events, Transcript& transcript) {
  NSError error;
  const NSDictionary reply = connection.sendMessageSync({{"question", "who am I"}}, kAnswerSeconds, &error);
  transcript.check(events.wasAsked() && reply["name"] == NSObject("machine_client"),
                   NSString::stringWithFormat("the listener knows me as %@", reply["name"]), error);
}

void sendWhatIsNotPlain(VeltoConnection& connection, Transcript& transcript) {
  NSError error;
  const bool isSent = connection.sendMessage({{"question", "load"}, {"asked at", NSDate::date()}}, &error);
  transcript.check(!isSent && error.code() == 3,
                   NSString::stringWithFormat("a message with a date is refused: code %d, %@", error.code(),
                                              error.localizedDescription()),
                   error);
}

void askWhatIsNeverAnswered(VeltoConnection& connection, Transcript& transcript) {
  constexpr double patienceSeconds = 0.3;
  NSError error;
  const NSDictionary reply = connection.sendMessageSync({{"question", "when will you stop"}}, patienceSeconds, &error);
  transcript.check(!reply && error.code() == 6,
                   NSString::stringWithFormat("no answer in %.1f seconds: code %d, %@", patienceSeconds, error.code(),
                                              error.localizedDescription()),
                   error);
}

}  // namespace

void playFacts(VeltoConnection& connection, ClientEvents& events, Transcript& transcript) {
  askFor(connection, transcript, "processor", "model");
  askFor(connection, transcript, "memory", "available");
  askFor(connection, transcript, "load", "1 minute");
  askFor(connection, transcript, "uptime", "seconds");
  askWhoIAm(connection, events, transcript);
  sendWhatIsNotPlain(connection, transcript);
  askWhatIsNeverAnswered(connection, transcript);
  transcript.say("closes");
  connection.close();
  transcript.check(events.waitForError("Listener connection invalidated", kAnswerSeconds), "closed in good order");
}

}  // namespace machine
