// The exchange of a request and a reply beside msgpack-cxx, and what decoding costs by size and by depth.
//
// "ratio" is the median, over the rounds of one run, of our time to msgpack's in the same round: each round runs one,
// then the other.

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "benchmarks/Exchange.h"
#include "platform/foundation/Foundation.h"
#include "platform/xpc/wire/ValueDecoder.h"
#include "platform/xpc/wire/ValueEncoder.h"

namespace velto::benchmarks {
namespace {

constexpr int kExchangesOfARound = 2000;

template <class Exchange>
double secondsOfARound(const Exchange& exchange, Request& request) {
  const auto start = std::chrono::steady_clock::now();
  for (int count = 0; count < kExchangesOfARound; ++count) {
    ++request.number;
    benchmark::DoNotOptimize(exchange(request));
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void ExchangeBesideMessagePack(benchmark::State& state) {
  Request request;
  if (exchangeValues(request) != exchangeMessagePack(request)) state.SkipWithError("they answer differently");
  std::vector<double> ours, theirs, ratios;
  for (auto _ : state) {
    ours.push_back(secondsOfARound(exchangeValues, request));
    theirs.push_back(secondsOfARound(exchangeMessagePack, request));
    ratios.push_back(ours.back() / theirs.back());
    state.SetIterationTime(ours.back());
  }
  state.counters["ours_ns"] = median(ours) / kExchangesOfARound * 1e9;
  state.counters["msgpack_ns"] = median(theirs) / kExchangesOfARound * 1e9;
  state.counters["ratio"] = median(ratios);
}
BENCHMARK(ExchangeBesideMessagePack)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2);

wire::Frame encoded(const NSObject& value) {
  wire::ValueEncoder encoder(wire::FrameType::call);
  encoder.add(value);
  return encoder.take();
}

void decodeAgainAndAgain(benchmark::State& state, const NSObject& value, std::size_t parts) {
  const wire::ClassSet everything(NSSet::setWithObjects({NSObject::classObject()}));
  const wire::Frame frame = encoded(value);
  for (auto _ : state) {
    wire::ValueDecoder decoder(frame);
    NSObject decoded;
    if (decoder.next(everything, decoded) != wire::ValueDecoder::Outcome::value) state.SkipWithError("not decoded");
    benchmark::DoNotOptimize(decoded);
  }
  state.counters["per_part"] = benchmark::Counter(
      static_cast<double>(parts), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void DecodeKeys(benchmark::State& state) {
  NSMutableDictionary message;
  for (std::int64_t key = 0; key < state.range(0); ++key) message.setObject(key, "key " + std::to_string(key));
  decodeAgainAndAgain(state, message, static_cast<std::size_t>(state.range(0)));
}
BENCHMARK(DecodeKeys)->Arg(1)->Arg(10)->Arg(16)->Arg(17)->Arg(100)->Arg(1000)->Arg(10'000);

void DecodeLevels(benchmark::State& state) {
  NSArray value{1};
  for (std::int64_t level = 1; level < state.range(0); ++level) value = NSArray::arrayWithObjects({value});
  decodeAgainAndAgain(state, value, static_cast<std::size_t>(state.range(0)));
}
BENCHMARK(DecodeLevels)->Arg(1)->Arg(10)->Arg(100);

}  // namespace
}  // namespace velto::benchmarks

BENCHMARK_MAIN();
