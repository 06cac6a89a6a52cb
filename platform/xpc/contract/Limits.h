#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace velto::limits {

// Everything that a peer can make a process hold is bounded by one of these. They are the same in every process of one
// version; the first frame of each end states those that the other must know. A call over one of them is refused: the
// sender's error handler is told the limit, the value and the maximum.

// Bytes of one call or one reply, its header not counted. Room for any sensible message; larger data belongs into files
// or shared memory.
inline constexpr std::size_t kMaximumFrameBytes = std::size_t{16} << 20;
// Data that a frame has no room for comes beside it, in regions of shared memory that the other end has filled and
// sealed and that are mapped here, not copied: so much of it with one call or reply, each region of a size that is
// worth a mapping, and so many of them.
inline constexpr std::size_t kMaximumRegionBytes = std::size_t{1} << 30;
inline constexpr std::size_t kLeastRegionBytes = std::size_t{256} << 10;
inline constexpr std::size_t kMaximumRegions = 8;
// Regions that are mapped in the whole process, whoever keeps their data: the kernel allows a process 65530 mappings,
// of which memory and threads want some too. What comes with one more is refused.
inline constexpr std::size_t kMappedRegions = 4096;
// Wherever bytes are bounded those of regions count for an eighth, since their memory is made by whoever sends them;
// but for the credit of a call for no more than a greatest frame. So what waits for its turn is 2 GiB of them at most
// in the calls of a connection and as much in its replies, and in all together 4 GiB. What callbacks were given, and
// keep, counts no more.
inline constexpr std::size_t kRegionBytesPerByte = 8;
// Levels of containers inside one argument. JSON parsers of this kind stop between 100 and 1000.
inline constexpr std::size_t kMaximumDepth = 128;
// Objects in all values of one call or reply. An object takes far more memory than the single byte it can come in; this
// many doubles in an array take a little more than the greatest frame, so only swarms of tiny objects meet it.
inline constexpr std::size_t kMaximumObjects = std::size_t{1} << 21;
// Comparisons that the keys of dictionaries and the elements of sets in one call or reply may cost. Strings and numbers
// have hashes that no peer can foresee and cost none, and so have small containers of them. Large or deep containers,
// errors and objects of users' classes may all have the same hash, so that each is compared with every other.
inline constexpr std::size_t kMaximumKeyComparisons = std::size_t{1} << 26;
// Descriptors that travel with one call or reply. An endpoint takes two, a file descriptor one; the kernel's own
// maximum is 253.
inline constexpr std::size_t kMaximumDescriptors = 64;
// Bytes of a method's selector.
inline constexpr std::size_t kMaximumSelectorBytes = 256;
// Bytes of text in a refusal: enough for every reason that is made here; longer ones are cut.
inline constexpr std::size_t kMaximumReasonBytes = 1024;

// Bytes and calls that a connection keeps for a receiver which is still busy: the credit of the sender. At least one
// call of the greatest size must fit.
inline constexpr std::size_t kUndeliveredBytes = std::size_t{32} << 20;
inline constexpr std::size_t kUndeliveredCalls = 4096;
// The credit of a sender that has not heard the other end's limits yet.
inline constexpr std::size_t kInitialBytes = std::size_t{32} << 20;
inline constexpr std::size_t kInitialCalls = 4096;
// Bytes of replies that a connection keeps while its queue is blocked. Replies come only to calls that were made here.
inline constexpr std::size_t kUndeliveredReplyBytes = std::size_t{256} << 20;

// Bytes that a connection keeps because the other end does not read, or has given no credit.
inline constexpr std::size_t kWaitingBytes = std::size_t{64} << 20;
// Of them, so many may wait for room in the socket before a sender that asks is told to wait.
inline constexpr std::size_t kWritableBytes = std::size_t{1} << 20;
// How long a frame of which a part has come may take to be whole. Half a frame holds memory and descriptors.
inline constexpr std::chrono::milliseconds kUnfinishedFrame{10'000};
// What a connection that has ended may go on holding behind a callback that does not return, and how long anything
// more.
inline constexpr std::size_t kLeftoverBytes = std::size_t{64} << 10;
inline constexpr std::chrono::milliseconds kLeftoverPatience{1'000};
// What peers make the whole process hold, in bytes: half frames, calls and replies that are not delivered yet, and what
// waits to be sent. Over the first, connections that hold more than a little are not read until there is less; if there
// is not, after so long the one that holds the most is ended, as it is at once over the second. The first is more than
// one connection alone can come to.
inline constexpr std::int64_t kHeldBytesBeforeWaiting = std::int64_t{384} << 20;
inline constexpr std::int64_t kMaximumHeldBytes = std::int64_t{512} << 20;
inline constexpr std::chrono::milliseconds kHeldBackPatience{5'000};
// Whoever has held so much leaves gaps in the process's memory that are worth giving back to the system.
inline constexpr std::int64_t kMuchHeldBytes = std::int64_t{8} << 20;
// What everybody may hold at any time.
inline constexpr std::int64_t kLittleHeldBytes = std::int64_t{1} << 20;
inline constexpr std::int64_t kLittleHeldDescriptors = 16;
// The same for descriptors, as parts of those that the process may open: one eighth, one quarter.
inline constexpr std::size_t kHeldDescriptorsBeforeWaiting = 8;
inline constexpr std::size_t kMaximumHeldDescriptors = 4;
// Calls of one connection that wait for their replies.
inline constexpr std::size_t kPendingReplies = 65536;
// Replies owed to one peer: calls of its that were delivered and neither answered nor let go.
inline constexpr std::size_t kOwedReplies = 65536;

// What one end of a stream keeps for its reader: so many items, and the last that comes before they have so many bytes
// may be of any size. Streams that one peer may have open, and what all of a process may keep: what comes over that
// ends its stream.
inline constexpr std::size_t kStreamItems = 256;
inline constexpr std::size_t kStreamBytes = std::size_t{1} << 20;
inline constexpr std::size_t kStreamsOfOnePeer = 64;
inline constexpr std::size_t kStreamBytesOfProcess = std::size_t{256} << 20;
// Calls and messages that a client keeps because the other end is behind and whoever made them may not wait.
inline constexpr std::size_t kParkedCalls = 1024;
// How often a call that may be repeated is made again.
inline constexpr int kRepeats = 3;
// Messages to all that a service keeps for one client that is behind.
inline constexpr std::size_t kBroadcastBacklog = 256;

// Connections of one listener that have not called yet, and how long each may take. A peer that connects and says
// nothing holds a descriptor here.
inline constexpr std::size_t kSilentConnections = 256;
inline constexpr std::chrono::milliseconds kSilence{10'000};
// Over that number the oldest of the process that has the most of them is cut off, but not before it has had this long:
// many honest clients may come at once. Over the greatest number it is cut off at once.
inline constexpr std::chrono::milliseconds kShortestSilence{500};
inline constexpr std::size_t kMostSilentConnections = 1024;
// Of the descriptors that the process may open, accepted connections leave this part to the rest of it. When no place
// is left, the process that has the most connections loses the one that has been silent for the longest to one that has
// fewer.
inline constexpr std::size_t kPartKeptFree = 8;
// What the kernel may keep on the way to an end that large frames are sent to, from when the first is: with less, the
// two ends take turns far too often. Other connections keep what the kernel gives them.
inline constexpr int kLargeSendBufferBytes = 1 << 20;
// Connections waiting in the kernel to be accepted.
inline constexpr int kBacklog = 4096;

// How long a connection that was invalidated goes on sending what was handed to it before.
inline constexpr std::chrono::milliseconds kFarewell{5'000};
// How often at first, how seldom later, and how long a connection to a listener with a full backlog is tried again. Of
// many that wait for the same listener only the first tries.
inline constexpr std::chrono::milliseconds kConnectRetry{10};
inline constexpr std::chrono::milliseconds kLongestConnectRetry{100};
inline constexpr std::chrono::milliseconds kConnectPatience{30'000};

// Threads that run callbacks at the same time. Past that, callbacks wait for one to end.
inline constexpr std::size_t kMaximumWorkers = 512;
// Threads beyond those, which run no callbacks but those that end a connection: they free whoever sleeps in another.
inline constexpr std::size_t kReservedWorkers = 32;
// How long a callback that wakes waits for another of its connection, which began while it slept, to return or to
// sleep: it may hold a lock that the other wants.
inline constexpr std::chrono::milliseconds kWakingPatience{5'000};
// Idle threads kept for the next event, the one that reads included.
inline constexpr std::size_t kSpareWorkers = 3;

// Bytes of a service's name: a file name can have no more.
inline constexpr std::size_t kMaximumNameBytes = 255;

static_assert(kUndeliveredBytes >= kMaximumFrameBytes && kInitialBytes >= kMaximumFrameBytes);
static_assert(kMaximumDescriptors <= 253 && kMaximumRegions < kMaximumDescriptors);
static_assert(kMaximumRegionBytes / kRegionBytesPerByte <= kUndeliveredReplyBytes);

}  // namespace velto::limits
