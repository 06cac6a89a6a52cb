// The asynchronous half of the library: requests that do not wait, replies that come on the library's threads.

#include "examples/machine/Digest.h"
#include "examples/machine/FileDownload.h"
#include "examples/machine/Roles.h"

namespace machine {

namespace {

void fetch(VeltoConnection& connection, Transcript& transcript, const std::string& path) {
  NSError error;
  const NSDictionary file = connection.sendMessageSync({{"question", "file"}, {"path", path}}, kAnswerSeconds, &error);
  const auto download =
      std::make_shared<FileDownload>(connection.shared_from_this(), path, file["chunks"].integerValue());
  download->start();
  const bool isWhole = download->wait(kAnswerSeconds);
  const std::string digest = digestOf(download->bytes());
  // The third one is this program's own: it reads the file itself.
  const bool isSame = isWhole && digest == file["digest"].stringValue() && digest == digestOfFile(path);
  transcript.check(isSame,
                   NSString::stringWithFormat("asynchronous replies: %@ in %@ chunks, %d bytes, SHA-256 %s as on disk",
                                              path, file["chunks"], download->bytes().size(), digest),
                   error ? NSObject(error) : NSObject(file));
}

void lookForNobody(Transcript& transcript) {
  const auto events = std::make_shared<ClientEvents>(transcript);
  const auto connection = VeltoConnection::initWithServiceName("org.velto.examples.nobody", events);
  NSError error;
  const bool isReady = connection->waitUntilReady(kAnswerSeconds, &error);
  transcript.check(!isReady && error.localizedDescription() == NSString("Listener not available"),
                   NSString::stringWithFormat("looked up org.velto.examples.nobody: code %d, %@", error.code(),
                                              error.localizedDescription()),
                   error);
  connection->close();
}

}  // namespace

void playFiles(VeltoConnection& connection, ClientEvents& events, Transcript& transcript,
               const std::vector<std::string>& paths) {
  for (const std::string& path : paths) fetch(connection, transcript, path);
  lookForNobody(transcript);
  NSError error;
  const NSDictionary reply = connection.sendMessageSync({{"question", "please close"}}, kAnswerSeconds, &error);
  transcript.check(reply["text"] == NSObject("goodbye"), "the listener said goodbye", error);
  transcript.check(events.waitForError("Listener connection invalidated", kAnswerSeconds),
                   "saw the listener close in good order");
}

}  // namespace machine
