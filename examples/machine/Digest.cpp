// SHA-256 by OpenSSL. Its calls fail only for want of memory or of the algorithm, which this program cannot do without.

#include "examples/machine/Digest.h"

#include <array>
#include <fstream>
#include <stdexcept>
#include <vector>

#include <openssl/evp.h>

namespace machine {

namespace {

void require(bool succeeded) {
  if (!succeeded) throw std::runtime_error("SHA-256 is not available");
}

}  // namespace

struct Digest::State {
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context{EVP_MD_CTX_new(), &EVP_MD_CTX_free};
};

Digest::Digest() : state_(std::make_unique<State>()) {
  require(state_->context && EVP_DigestInit_ex(state_->context.get(), EVP_sha256(), nullptr) == 1);
}

Digest::~Digest() = default;

void Digest::add(std::string_view bytes) {
  require(EVP_DigestUpdate(state_->context.get(), bytes.data(), bytes.size()) == 1);
}

std::string Digest::finish() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  require(EVP_DigestFinal_ex(state_->context.get(), digest.data(), &length) == 1);
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  for (unsigned int position = 0; position < length; ++position) {
    text += digits[digest[position] >> 4];
    text += digits[digest[position] & 0x0f];
  }
  return text;
}

std::string digestOf(std::string_view bytes) {
  Digest digest;
  digest.add(bytes);
  return digest.finish();
}

std::string digestOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return {};
  Digest digest;
  std::vector<char> buffer(std::size_t{64} * 1024);
  while (file.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || file.gcount() > 0) {
    digest.add({buffer.data(), static_cast<std::size_t>(file.gcount())});
  }
  return file.bad() ? std::string() : digest.finish();
}

}  // namespace machine
