#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace machine {

// The SHA-256 digest of bytes that come piece by piece.
class Digest {
 public:
  Digest();
  ~Digest();
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;

  void add(std::string_view bytes);
  // In hexadecimal; call once, at the end.
  std::string finish();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The digest of bytes that are all there.
std::string digestOf(std::string_view bytes);
// The digest of a file; empty when it cannot be read.
std::string digestOfFile(const std::string& path);

}  // namespace machine
