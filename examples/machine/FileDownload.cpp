// Requests of one connection are answered in the order in which they were sent, so the chunks need no sorting; their
// digests would show if that were not so.

#include "examples/machine/FileDownload.h"

#include <chrono>
#include <utility>

#include "examples/machine/Digest.h"

namespace machine {

FileDownload::FileDownload(std::shared_ptr<VeltoConnection> connection, std::string path, std::int64_t chunks)
    : connection_(std::move(connection)), path_(std::move(path)), chunks_(chunks) {}

void FileDownload::start() {
  constexpr int underWay = 8;
  for (int request = 0; request < underWay; ++request) ask();
}

bool FileDownload::wait(double seconds) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, std::chrono::duration<double>(seconds), [this] {
    return hasFailed_ || taken_ == chunks_;
  }) && !hasFailed_;
}

void FileDownload::ask() {
  // Held while sending, so that two threads cannot send their requests in the wrong order.
  const std::lock_guard lock(mutex_);
  if (asked_ == chunks_) return;
  const NSDictionary request{{"question", "chunk"}, {"path", path_}, {"number", asked_++}};
  const bool isSent = connection_->sendMessage(request, nullptr,
                                               [self = shared_from_this()](NSDictionary reply) { self->take(reply); });
  if (!isSent) fail();
}

void FileDownload::take(const NSDictionary& reply) {
  {
    const std::lock_guard lock(mutex_);
    const NSData chunk = reply["bytes"].as<NSData>();
    if (!chunk || reply["digest"].stringValue() != digestOf(chunk.view())) return fail();
    bytes_ += chunk.view();
    if (++taken_ == chunks_) changed_.notify_all();
  }
  ask();
}

void FileDownload::fail() {
  hasFailed_ = true;
  changed_.notify_all();
}

}  // namespace machine
