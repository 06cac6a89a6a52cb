#pragma once

#include <VeltoIPC/VeltoIPC.h>

namespace machine {

// A file is handed out in chunks of this many bytes, the last one shorter.
inline constexpr std::int64_t kChunkBytes = std::int64_t{64} * 1024;

// {"bytes": size, "chunks": count, "digest": SHA-256 of all}, or {"error": "…"}.
NSDictionary describeFile(const std::string& path);
// {"bytes": data, "digest": SHA-256 of this chunk}, or {"error": "…"}.
NSDictionary readChunk(const std::string& path, std::int64_t number);

}  // namespace machine
