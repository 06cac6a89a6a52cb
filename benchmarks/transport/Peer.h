#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "benchmarks/Exchange.h"

namespace velto::transport {

using benchmarks::Request;

// What measures need of a transport. Each program of this folder is one transport: it defines serve() and connect(),
// and shares everything else.

// Numbers of requests that are no usual ones: one without a reply; one that asks how many of those have come; one that
// asks for the size of the data.
inline constexpr std::int64_t kOneWay = 0;
inline constexpr std::int64_t kHowManyCame = -1;
inline constexpr std::int64_t kAcknowledge = -2;

// What the server makes of a request, whatever brought it.
class Work {
 public:
  // Nothing when no reply is due. `dataSize` is called only if the size is asked for.
  template <class DataSize>
  std::optional<double> answer(double factor, std::int64_t number, const DataSize& dataSize) {
    switch (number) {
      case kOneWay:
        arrived_.fetch_add(1, std::memory_order_relaxed);
        return std::nullopt;
      case kHowManyCame:
        return static_cast<double>(arrived_.load(std::memory_order_relaxed));
      case kAcknowledge:
        return static_cast<double>(dataSize());
      default:
        return factor * static_cast<double>(number) + benchmarks::kOffset;
    }
  }

 private:
  std::atomic<std::int64_t> arrived_ = 0;
};

// What a transport does not do.
class Unsupported : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

// A client's connection. Whatever fails is thrown.
class Link {
 public:
  Link() = default;
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  virtual ~Link() = default;

  // Returns the result that the reply holds.
  virtual double roundTrip(const Request& request) = 0;
  // One way, with the number for it. May wait for the server, and may keep the message until more come or a round trip.
  virtual void send(const Request& request) = 0;
  // So many round trips, numbered from 1, of which at most `outstanding` are on the way at a time.
  virtual void roundTrips(std::int64_t count, std::int64_t outstanding) = 0;
  // A round trip of a request that has so many keys more. From several threads at a time, like roundTrip(), where the
  // transport is measured so.
  virtual void roundTripOfKeys(int keys);
  // A round trip of data that lies in sealed memory, and is mapped from there. It is sent like any other where the
  // transport knows no difference.
  virtual double roundTripOfMemory(int memory, const Request& request);
};

inline double Link::roundTripOfMemory(int, const Request& request) {
  return roundTrip(request);
}

inline void Link::roundTripOfKeys(int) {
  throw Unsupported("is not measured by keys");
}

// Serves until the process is ended; calls `isReady` as soon as clients may connect.
void serve(const std::string& address, const std::function<void()>& isReady);
// A connection; ready, if the transport tells.
std::unique_ptr<Link> connect(const std::string& address);

}  // namespace velto::transport
