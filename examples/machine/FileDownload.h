#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include <VeltoIPC/VeltoIPC.h>

namespace machine {

// One file, fetched by asynchronous requests: several are under way at once, and each reply asks for a further chunk.
class FileDownload final : public std::enable_shared_from_this<FileDownload> {
 public:
  FileDownload(std::shared_ptr<VeltoConnection> connection, std::string path, std::int64_t chunks);

  void start();
  // Waits until every chunk is there; false when one failed or `seconds` are over. Then `bytes()` holds the file.
  bool wait(double seconds);
  const std::string& bytes() const { return bytes_; }

 private:
  void ask();
  void take(const NSDictionary& reply);
  void fail();

  const std::shared_ptr<VeltoConnection> connection_;
  const std::string path_;
  const std::int64_t chunks_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::int64_t asked_ = 0;
  std::int64_t taken_ = 0;
  bool hasFailed_ = false;
  std::string bytes_;
};

}  // namespace machine
