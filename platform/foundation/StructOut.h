#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>

#include "platform/foundation/ComingOut.h"
#include "platform/foundation/Description.h"

class NSMutableDictionary;

// How structs that describe themselves come out of dictionaries, and enumerations with names of texts. Included by
// ComingOut.h.
namespace velto {

// Where the entry of each key lies in `from`, a key in its place with the value behind it; null where there is none.
// False, and said why, if it is no dictionary.
[[nodiscard]] VELTO_EXPORT bool findEntries(const NSObject& from, std::span<const std::string_view> keys,
                                            std::span<const NSObject*> places, Mismatch& why);
// The entries of a dictionary but for those in the places, which are put in another order; nil if there are none.
// They can change then if they are to.
[[nodiscard]] VELTO_EXPORT NSObject entriesBeside(const NSObject& dictionary, std::span<const NSObject*> places,
                                                  bool canChange);
// The same, for something to say against them: false, and said why, if there are any.
[[nodiscard]] VELTO_EXPORT bool hasNoneBeside(const NSObject& dictionary, std::span<const NSObject*> places,
                                              Mismatch& why);
// Which of the names it is; as many as there are, and said why, if it is none of them.
[[nodiscard]] VELTO_EXPORT std::size_t indexOfName(const NSObject& from, std::span<const std::string_view> names,
                                                   Mismatch* why);

template <class T>
bool nameOut(const NSObject& from, T& into, Mismatch* why) {
  const std::size_t index = indexOfName(from, namesOf<T>, why);
  if (index == namesOf<T>.size()) return false;
  into = enumeratorsOf<T>[index].value;
  return true;
}

// Reads one struct: finds the entries of its fields, and then goes through the fields once.
template <class T>
class StructReader {
 public:
  StructReader(const NSObject& from, T& into, Mismatch& why) : from_(from), into_(into), why_(why) {}

  bool read() {
    if (!findEntries(from_, keysOf<T>, places_, why_)) return false;
    if (!std::apply([this](const auto&... field) { return (... && this->readNamed(field)); }, fieldsOf<T>))
      return false;
    if constexpr (refusesOthers<T>) return hasNoneBeside(from_, places_, why_);
    return std::apply([this](const auto&... field) { return (... && this->readOthers(field)); }, fieldsOf<T>);
  }

 private:
  template <FieldRole kRole, class Owner, class Member>
  bool readNamed(const Field<kRole, Owner, Member>& field) {
    if constexpr (kRole == FieldRole::everythingElse) {
      return true;
    } else {
      const NSObject* const entry = places_[next_++];
      if (kRole == FieldRole::withDefault && entry == nullptr) return true;
      if (replace(into_.*field.member, entry != nullptr ? entry[1] : NSObject())) return true;
      why_.underKey(NSObject(field.key));
      return false;
    }
  }

  // Without any, the member stays as it is.
  template <FieldRole kRole, class Owner, class Member>
  bool readOthers([[maybe_unused]] const Field<kRole, Owner, Member>& field) {
    if constexpr (kRole == FieldRole::everythingElse) {
      constexpr bool kCanChange = std::is_same_v<Member, NSMutableDictionary>;
      const NSObject others = entriesBeside(from_, places_, kCanChange);
      return others.isNil() || replace(into_.*field.member, others);
    } else {
      return true;
    }
  }

  // What a struct has by default is not added to.
  template <class Member>
  bool replace(Member& member, const NSObject& value) {
    member = Member();
    return comeOut(value, member, &why_);
  }

  const NSObject& from_;
  T& into_;
  Mismatch& why_;
  std::array<const NSObject*, keysOf<T>.size()> places_{};
  std::size_t next_ = 0;
};

// Counts structs that are in others, in what would say why not.
template <class T>
bool structOut(const NSObject& from, T& into, Mismatch* why) {
  if (why == nullptr) {
    Mismatch unasked;
    return structOut(from, into, &unasked);
  }
  if (!why->enterStruct()) return false;
  const bool cameOut = StructReader<T>(from, into, *why).read();
  why->leaveStruct();
  return cameOut;
}

}  // namespace velto
