// Dates. One that is made relative to now carries two readings: the calendar's, which it is compared, sent and printed
// by, and the steady clock's, which it is waited for by.
#include "platform/foundation/NSDate.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>

#include "platform/foundation/BuiltInClass.h"
#include "platform/foundation/Class.h"
#include "platform/foundation/PlainBodies.h"
#include "platform/foundation/ValueText.h"

namespace velto {
namespace {

using SteadyTime = std::chrono::steady_clock::time_point;
using Seconds = std::chrono::duration<double>;

// A hundred years: longer than any wait, and far from where the steady clock's 64 bits of nanoseconds end.
constexpr double kLongestWaitSeconds = 100 * 365.25 * 86400;
constexpr double kFirstFourDigitYear = -62135596800;
constexpr double kAfterFourDigitYears = 253402300800;

double clamped(double seconds, double limit) {
  return std::isnan(seconds) ? 0 : std::clamp(seconds, -limit, limit);
}

double secondsSince1970() {
  return Seconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

SteadyTime steadyAfter(double seconds) {
  const Seconds wait(clamped(seconds, kLongestWaitSeconds));
  return std::chrono::steady_clock::now() + std::chrono::duration_cast<SteadyTime::duration>(wait);
}

const DateBody& bodyOf(const NSDate& date) {
  return static_cast<const DateBody&>(date.value().body());
}

}  // namespace

std::string textOfDate(double seconds) {
  const double rounded = std::round(seconds * 1000) / 1000;
  if (rounded < kFirstFourDigitYear || rounded >= kAfterFourDigitYears) {
    return shortestText(seconds) + " seconds since 1970";
  }
  using namespace std::chrono;
  const sys_time<milliseconds> time{milliseconds(std::llround(seconds * 1000))};
  const sys_days midnight = floor<days>(time);
  const year_month_day date(midnight);
  const hh_mm_ss<milliseconds> hour(time - midnight);
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(hour.hours().count()), static_cast<int>(hour.minutes().count()),
                static_cast<int>(hour.seconds().count()), static_cast<int>(hour.subseconds().count()));
  return text.data();
}

}  // namespace velto

using velto::DateBody;

Class NSDate::classObject() {
  static const Class& made = *new Class(velto::defineBuiltIn("NSDate", NSObject::classObject()));
  return made;
}

NSDate NSDate::date() {
  return dateWithTimeIntervalSinceNow(0);
}

NSDate NSDate::dateWithTimeIntervalSinceNow(double seconds) {
  const double interval = velto::clamped(seconds, velto::kLongestWaitSeconds);
  return NSDate(DateBody::make(velto::secondsSince1970() + interval, velto::steadyAfter(interval)));
}

NSDate NSDate::dateWithTimeIntervalSince1970(double seconds) {
  return NSDate(DateBody::make(velto::clamped(seconds, std::numeric_limits<double>::max()), std::nullopt));
}

double NSDate::timeIntervalSinceNow() const {
  if (isNil()) return 0;
  const DateBody& body = velto::bodyOf(*this);
  if (!body.steady()) return body.seconds() - velto::secondsSince1970();
  return velto::Seconds(*body.steady() - std::chrono::steady_clock::now()).count();
}

double NSDate::timeIntervalSince1970() const {
  return isNil() ? 0 : velto::bodyOf(*this).seconds();
}

std::chrono::steady_clock::time_point NSDate::steadyTime() const {
  if (isNil()) return std::chrono::steady_clock::now();
  const DateBody& body = velto::bodyOf(*this);
  // The kernel takes no times from before its clock began; such a date has passed anyway.
  return std::max(body.steady().value_or(velto::steadyAfter(timeIntervalSinceNow())), velto::SteadyTime());
}
