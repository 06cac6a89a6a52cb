// Nothing is remembered between two questions: each chunk is read when it is asked for, so a client that stops asking
// leaves nothing behind.

#include "examples/machine/FileChunks.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "examples/machine/Digest.h"

namespace machine {

namespace {

NSDictionary cannotRead(const std::string& path) {
  return {{"error", "cannot read " + path}};
}

}  // namespace

NSDictionary describeFile(const std::string& path) {
  std::error_code failure;
  const auto size = std::filesystem::file_size(path, failure);
  const std::string digest = failure ? "" : digestOfFile(path);
  if (digest.empty()) return cannotRead(path);
  const auto bytes = static_cast<std::int64_t>(size);
  return {{"bytes", bytes}, {"chunks", (bytes + kChunkBytes - 1) / kChunkBytes}, {"digest", digest}};
}

NSDictionary readChunk(const std::string& path, std::int64_t number) {
  std::ifstream file(path, std::ios::binary);
  if (number < 0 || !file.seekg(number * kChunkBytes)) return cannotRead(path);
  std::vector<std::uint8_t> bytes(static_cast<std::size_t>(kChunkBytes));
  file.read(reinterpret_cast<char*>(bytes.data()), kChunkBytes);
  if (file.bad()) return cannotRead(path);
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  const NSData data = NSData::dataWithVector(std::move(bytes));
  return {{"bytes", data}, {"digest", digestOf(data.view())}};
}

}  // namespace machine
