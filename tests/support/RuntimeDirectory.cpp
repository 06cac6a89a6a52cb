// XDG_RUNTIME_DIR, replaced and put back.

#include "tests/support/RuntimeDirectory.h"

#include <cstdlib>

#include <gtest/gtest.h>

namespace velto::testing {

RuntimeDirectory::RuntimeDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "velto-test-XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) ADD_FAILURE() << "no directory can be made: " << name;
  path_ = name;
  if (const char* former = std::getenv("XDG_RUNTIME_DIR")) former_ = former;
  setenv("XDG_RUNTIME_DIR", name.c_str(), 1);
}

RuntimeDirectory::~RuntimeDirectory() {
  if (former_) {
    setenv("XDG_RUNTIME_DIR", former_->c_str(), 1);
  } else {
    unsetenv("XDG_RUNTIME_DIR");
  }
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path RuntimeDirectory::socket() const {
  const auto path = path_ / "velto-ipc" / "org.velto.VeltoIPCDaemon";
  return std::filesystem::is_socket(path) ? path : std::filesystem::path();
}

}  // namespace velto::testing
