#pragma once

#include <cstddef>
#include <string_view>

namespace velto {

// Writes to a descriptor (borrowed) that other processes may share, and never waits for anybody who should read from
// it: what does not fit is not written. Whether the descriptor blocks is a flag of all who share it, so it is left
// alone. Returns how many bytes were taken; when these are not all, errno says why (EAGAIN: there was no room). The
// caller sees to SIGPIPE and SIGTTOU. A file on a disk is written to as ever: it has nobody who must read.
std::size_t writeWithoutWaiting(int descriptor, std::string_view bytes) noexcept;

// The ways that it has, from the best down; each one fails with EOPNOTSUPP where it cannot be used at all.
// The kernel is asked not to wait, for this one write. Pipes know that since Linux 6.4, terminals do not.
std::size_t writeMarkedNotToWait(int descriptor, std::string_view bytes) noexcept;
// Through a description of our own of the same pipe or terminal, whose flags concern nobody else.
std::size_t writeReopened(int descriptor, std::string_view bytes) noexcept;
// As long as poll() says that there is room, in pieces for which its word is good.
std::size_t writeWhileThereIsRoom(int descriptor, std::string_view bytes) noexcept;

}  // namespace velto
