// The fixed header ahead of every frame. It is checked as soon as its eight bytes are there, before anything is kept
// for the body that it announces.

#include "platform/xpc/wire/Frame.h"

#include <bit>

#include "platform/xpc/contract/Limits.h"
#include "platform/xpc/wire/Text.h"

namespace velto::wire {
namespace {

constexpr std::uint32_t byteOf(std::uint32_t value, unsigned index) {
  return value >> (8 * index) & 0xFF;
}

bool isKnown(std::uint8_t type) {
  return type >= static_cast<std::uint8_t>(FrameType::hello) && type <= static_cast<std::uint8_t>(FrameType::goodbye);
}

constexpr unsigned kLeastRegions = std::bit_width(limits::kLeastRegionBytes) - 1;
constexpr unsigned kMaximumRegionsTogether = std::bit_width(limits::kMaximumRegionBytes) - 1;

bool mayHaveRegions(const FrameHeader& header) {
  return header.regions >= kLeastRegions && header.regions <= kMaximumRegionsTogether && header.descriptorCount > 0;
}

std::string problem(const FrameHeader& header, std::uint8_t type) {
  if (!isKnown(type)) return "a frame of unknown type " + std::to_string(type);
  if (header.regions != 0 && !mayHaveRegions(header)) {
    return "a frame whose byte of regions is " + std::to_string(header.regions) + ", with " +
           std::to_string(header.descriptorCount) + " descriptors";
  }
  if (header.bodyLength > limits::kMaximumFrameBytes) {
    return overLimit("bytes of a frame", header.bodyLength, limits::kMaximumFrameBytes);
  }
  if (header.descriptorCount > limits::kMaximumDescriptors) {
    return overLimit("descriptors of a frame", header.descriptorCount, limits::kMaximumDescriptors);
  }
  if (header.descriptorCount > 0 && header.type != FrameType::call && header.type != FrameType::reply) {
    return overLimit("descriptors of a frame of type " + std::to_string(type), header.descriptorCount, 0);
  }
  return {};
}

}  // namespace

std::array<std::uint8_t, FrameHeader::kBytes> FrameHeader::encode() const {
  std::array<std::uint8_t, kBytes> bytes{};
  for (unsigned index = 0; index < 4; ++index) bytes[index] = static_cast<std::uint8_t>(byteOf(bodyLength, index));
  bytes[4] = static_cast<std::uint8_t>(type);
  bytes[5] = regions;
  bytes[6] = static_cast<std::uint8_t>(byteOf(descriptorCount, 0));
  bytes[7] = static_cast<std::uint8_t>(byteOf(descriptorCount, 1));
  return bytes;
}

std::optional<FrameHeader> FrameHeader::decode(const std::uint8_t* bytes, std::string& reason) {
  FrameHeader header;
  for (unsigned index = 0; index < 4; ++index) header.bodyLength |= std::uint32_t{bytes[index]} << (8 * index);
  header.type = static_cast<FrameType>(bytes[4]);
  header.regions = bytes[5];
  header.descriptorCount = static_cast<std::uint16_t>(bytes[6] | bytes[7] << 8);
  std::string found = problem(header, bytes[4]);
  if (found.empty()) return header;
  reason = std::move(found);
  return std::nullopt;
}

}  // namespace velto::wire
