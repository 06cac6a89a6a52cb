#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "fuzz/support/Input.h"
#include "platform/xpc/wire/Frame.h"
#include "platform/xpc/wire/Messages.h"

namespace velto::fuzzing {

// A header and a body, as they go over the stream. The length may be another than the body's: peers lie.
std::vector<std::uint8_t> frameBytes(unsigned type, std::size_t declaredLength, std::size_t declaredDescriptors,
                                     Bytes body);
std::vector<std::uint8_t> frameBytes(const wire::Frame& frame);

// What the peer has said so far, read as simply as the protocol allows. From it follows what the library may say.
class PeerWords {
 public:
  void said(Bytes bytes);

  bool hasGreeted() const noexcept { return hello.has_value(); }
  // A header that no correct peer sends.
  bool isBroken() const noexcept { return broken_; }
  bool isAtBoundary() const noexcept { return bytes_.empty(); }
  // Bytes that the unfinished frame lacks.
  std::size_t missing() const noexcept;

  // The first hello, if it is one.
  std::optional<wire::Hello> hello;
  // Calls of the library that it has dealt with.
  wire::Credit freed;
  std::map<std::uint64_t, unsigned> calls;
  std::map<std::uint64_t, unsigned> callsForReply;
  std::set<std::uint64_t> dropped;
  std::uint64_t callCount = 0;
  std::uint64_t callBytes = 0;
  std::uint64_t replyRegions = 0;

 private:
  void frameSaid(const wire::Frame& frame);

  std::vector<std::uint8_t> bytes_;
  bool broken_ = false;
};

// What the library has sent.
struct LibraryWords {
  std::uint64_t calls = 0;
  std::uint64_t callBytes = 0;
  // Calls of the peer that were answered or refused.
  std::set<std::uint64_t> settled;
  std::size_t descriptors = 0;
  bool saidGoodbye = false;
};
// Holds what the library has sent to the protocol: sound frames, a hello first, answers only to calls that were made
// and once each, credit only for what came, nothing behind a goodbye; and from the byte on at which it had heard the
// peer's hello, nothing over the peer's limits. `isWhole` when nothing can be missing at the end.
LibraryWords checkedWords(Bytes sent, const PeerWords& peer, std::size_t heardHelloAt, bool isWhole);

}  // namespace velto::fuzzing
