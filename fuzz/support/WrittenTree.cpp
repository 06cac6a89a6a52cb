// Written against docs/wire.md and not against the writer: what stands for each kind of value, with its tag, its width
// and its order. libcbor writes its tree again at the end: it writes no head longer than need be.
//
// libcbor does not look at the text for UTF-8, and takes an element that comes twice. Both are the decoder's affair.

#include "fuzz/support/WrittenTree.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <cbor.h>

#include "fuzz/support/Require.h"
#include "fuzz/support/Values.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/NSFileDescriptor.h"
#include "platform/xpc/NSXPCListenerEndpoint.h"

namespace velto::fuzzing {
namespace {

using Item = const cbor_item_t*;

class Tree {
 public:
  void expect(Item item, const NSObject& value) {
    if (value.isNil()) return require(cbor_isa_float_ctrl(item) && cbor_is_undef(item), "nil is undefined");
    if (value.is<NSNull>()) return require(cbor_isa_float_ctrl(item) && cbor_is_null(item), "a null is null");
    if (const auto number = value.as<NSNumber>()) return expectNumber(item, number);
    if (const auto string = value.as<NSString>()) return expectText(item, string.view());
    if (const auto data = value.as<NSData>()) return expectBytes(item, data.span());
    if (const auto date = value.as<NSDate>()) return expectDouble(under(1, item), date.timeIntervalSince1970());
    if (const auto url = value.as<NSURL>()) return expectText(under(32, item), url.absoluteString().view());
    if (const auto uuid = value.as<NSUUID>()) return expectBytes(under(37, item), uuid.bytes());
    if (const auto array = value.as<NSArray>()) return expectList(item, array);
    if (const auto set = value.as<NSSet>()) return expectList(under(258, item), set.allObjects());
    if (const auto dictionary = value.as<NSDictionary>()) return expectPairs(item, dictionary);
    if (const auto error = value.as<NSError>()) return expectError(under(27, item), error);
    expectOther(under(27, item), value);
  }

 private:
  static Item under(std::uint64_t tag, Item item) {
    require(cbor_isa_tag(item), "a tag is due");
    if (cbor_tag_value(item) != tag) reportFinding("tag " + std::to_string(cbor_tag_value(item)) + " is another's");
    return cbor_move(cbor_tag_item(item));
  }

  static void expectNumber(Item item, const NSNumber& number) {
    switch (number.kind()) {
      case NSNumber::Kind::boolean:
        require(cbor_isa_float_ctrl(item) && cbor_is_bool(item), "a bool is one");
        return require(cbor_get_bool(item) == number.boolValue(), "a bool keeps its value");
      case NSNumber::Kind::signedInteger:
        return expectSigned(item, number.integerValue());
      case NSNumber::Kind::unsignedInteger:
        return expectInteger(number.unsignedIntegerValue() <= INT64_MAX ? under(60117, item) : item,
                             number.unsignedIntegerValue());
      case NSNumber::Kind::floatingPoint:
        return expectDouble(item, number.doubleValue());
    }
  }
  static void expectSigned(Item item, std::int64_t number) {
    expectInteger(item, static_cast<std::uint64_t>(number < 0 ? -1 - number : number), number < 0);
  }
  // A negative one is -1 - number.
  static void expectInteger(Item item, std::uint64_t number, bool isNegative = false) {
    require(isNegative ? cbor_isa_negint(item) : cbor_isa_uint(item), "an integer of this sign is due");
    require(cbor_get_int(item) == number, "an integer keeps its value");
    const int width = number <= UINT8_MAX ? 0 : number <= UINT16_MAX ? 1 : number <= UINT32_MAX ? 2 : 3;
    require(cbor_int_get_width(item) == width, "an integer takes its shortest form");
  }
  static void expectDouble(Item item, double number) {
    require(cbor_isa_float_ctrl(item) && cbor_is_float(item), "a floating-point number is due");
    require(cbor_float_get_width(item) == CBOR_FLOAT_64, "a floating-point number takes eight bytes");
    require(std::bit_cast<std::uint64_t>(cbor_float_get_float8(item)) == std::bit_cast<std::uint64_t>(number),
            "a floating-point number keeps its bits");
  }
  static void expectText(Item item, std::string_view text) {
    require(cbor_isa_string(item) && cbor_string_is_definite(item), "a text is due");
    require(std::string_view(reinterpret_cast<const char*>(cbor_string_handle(item)), cbor_string_length(item)) == text,
            "a text keeps its bytes");
  }
  static void expectBytes(Item item, std::span<const std::uint8_t> bytes) {
    require(cbor_isa_bytestring(item) && cbor_bytestring_is_definite(item), "bytes are due");
    require(std::equal(bytes.begin(), bytes.end(), cbor_bytestring_handle(item),
                       cbor_bytestring_handle(item) + cbor_bytestring_length(item)),
            "data keeps its bytes");
  }

  static Item const* list(Item item, std::size_t count) {
    require(cbor_isa_array(item) && cbor_array_is_definite(item), "an array is due");
    require(cbor_array_size(item) == count, "an array has all its elements");
    return cbor_array_handle(item);
  }
  void expectList(Item item, const NSArray& elements) {
    Item const* next = list(item, elements.count());
    for (const NSObject& each : elements) expect(*next++, each);
  }
  void expectPairs(Item item, const NSDictionary& dictionary) {
    require(cbor_isa_map(item) && cbor_map_is_definite(item), "a map is due");
    require(cbor_map_size(item) == dictionary.count(), "a map has all its pairs");
    const cbor_pair* next = cbor_map_handle(item);
    for (const auto& [key, value] : dictionary.pairs()) {
      expect(next->key, key);
      expect(next->value, value);
      ++next;
    }
  }
  void expectError(Item item, const NSError& error) {
    Item const* const parts = list(item, 4);
    expectText(parts[0], "NSError");
    expectText(parts[1], error.domain().view());
    expectSigned(parts[2], error.code());
    expectPairs(parts[3], error.userInfo());
  }
  void expectOther(Item item, const NSObject& value) {
    Item const* const parts = list(item, 2);
    if (const auto box = value.as<Box>(); !box.isNil()) {
      expectText(parts[0], "FuzzBox");
      return expect(parts[1], box.contents());
    }
    if (value.is<NSFileDescriptor>()) {
      expectText(parts[0], "NSFileDescriptor");
      return expectInteger(list(parts[1], 1)[0], descriptors_++);
    }
    require(value.is<NSXPCListenerEndpoint>(), "what was written is known");
    expectText(parts[0], "NSXPCListenerEndpoint");
    Item const* const indices = list(parts[1], 2);
    expectInteger(indices[0], descriptors_++);
    expectInteger(indices[1], descriptors_++);
  }

  // The index of the next one that is named.
  std::uint64_t descriptors_ = 0;
};

}  // namespace

void requireWritten(const NSObject& value, const wire::Frame& frame) {
  cbor_load_result result{};
  cbor_item_t* root = cbor_load(frame.body.data(), frame.body.size(), &result);
  if (root == nullptr) reportFinding("what was written is broken at byte " + std::to_string(result.error.position));
  require(result.read == frame.body.size(), "a value is one item");
  Tree().expect(root, value);
  std::vector<std::uint8_t> again(frame.body.size());
  require(cbor_serialize(root, again.data(), again.size()) == again.size() && frame.body == wire::ByteBuffer(again),
          "no head is longer than need be");
  cbor_decref(&root);
}

}  // namespace velto::fuzzing
