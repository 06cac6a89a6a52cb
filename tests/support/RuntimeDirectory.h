#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace velto::testing {

// A runtime directory of the test's own, where its services and nobody else's are found. Make it before any connection.
class RuntimeDirectory {
 public:
  RuntimeDirectory();
  ~RuntimeDirectory();
  RuntimeDirectory(const RuntimeDirectory&) = delete;
  RuntimeDirectory& operator=(const RuntimeDirectory&) = delete;

  const std::filesystem::path& path() const { return path_; }
  // The broker's; empty when there is none.
  std::filesystem::path socket() const;

 private:
  std::filesystem::path path_;
  std::optional<std::string> former_;
};

}  // namespace velto::testing
