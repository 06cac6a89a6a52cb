// veltoctl bench: how long a service takes to answer. So many calls are under way at any time; each that ends is
// followed by the next.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <unistd.h>

#include "VeltoIPC/Client.h"
#include "platform/foundation/Foundation.h"
#include "tools/veltoctl/Connecting.h"
#include "tools/veltoctl/Context.h"
#include "tools/veltoctl/ExitCode.h"
#include "tools/veltoctl/Histogram.h"
#include "tools/veltoctl/Output.h"
#include "tools/veltoctl/Signals.h"
#include <CLI/CLI.hpp>

namespace velto::ctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kRefresh{100};
constexpr unsigned kBarColumns = 24;

struct Wishes {
  std::string name;
  std::string message = "{}";
  double duration = 5;
  std::uint64_t count = 0;
  unsigned concurrency = 1;
  double timeout = 10;
};

class Run : public std::enable_shared_from_this<Run> {
 public:
  Run(const Wishes& wishes, Client client)
      : wishes_(wishes), message_(messageFrom(wishes.message, "the message")), client_(std::move(client)) {}

  void begin() {
    start_ = Clock::now();
    for (unsigned each = 0; each < wishes_.concurrency; ++each) next();
  }
  // No more calls; waits for those under way.
  void end() {
    isOver_ = true;
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return underWay_ == 0; });
    if (end_ == Clock::time_point()) end_ = Clock::now();
  }
  bool isDone() const {
    const std::lock_guard lock(mutex_);
    return (underWay_ == 0 && isOver_) || error_.has_value();
  }
  std::optional<CallError> error() const {
    const std::lock_guard lock(mutex_);
    return error_;
  }
  double seconds() const {
    const std::lock_guard lock(mutex_);
    const auto end = end_ == Clock::time_point() ? Clock::now() : end_;
    return std::chrono::duration<double>(end - start_).count();
  }
  // How much is done, 0 to 1.
  double part() const {
    if (wishes_.count > 0) return static_cast<double>(histogram_.total()) / static_cast<double>(wishes_.count);
    return std::min(1.0, seconds() / wishes_.duration);
  }
  const Histogram& histogram() const { return histogram_; }
  const Wishes& wishes() const { return wishes_; }

 private:
  void next() {
    const bool isLast = isOver_ || (wishes_.count > 0 && started_++ >= wishes_.count) ||
                        (wishes_.count == 0 && seconds() >= wishes_.duration);
    if (isLast) {
      isOver_ = true;
      const std::lock_guard lock(mutex_);
      changed_.notify_all();
      return;
    }
    {
      const std::lock_guard lock(mutex_);
      ++underWay_;
    }
    const auto begun = Clock::now();
    client_.call(message_, {.timeout = secondsOf(wishes_.timeout)})
        .then([self = shared_from_this(), begun](const Outcome<NSDictionary>& reply) { self->ended(begun, reply); });
  }

  void ended(Clock::time_point begun, const Outcome<NSDictionary>& reply) {
    const auto now = Clock::now();
    if (reply) {
      histogram_.count(
          static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now - begun).count()));
    } else {
      isOver_ = true;
    }
    next();
    const std::lock_guard lock(mutex_);
    if (!reply && !error_) error_ = reply.error();
    if (--underWay_ == 0) end_ = now;
    changed_.notify_all();
  }

  const Wishes wishes_;
  const NSDictionary message_;
  const Client client_;
  Histogram histogram_;
  std::atomic<std::uint64_t> started_{0};
  std::atomic<bool> isOver_{false};
  Clock::time_point start_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::uint64_t underWay_ = 0;
  Clock::time_point end_;
  std::optional<CallError> error_;
};

std::string timeOf(std::uint64_t nanoseconds) {
  return durationText(static_cast<double>(nanoseconds) / 1e9);
}

void showProgress(const Run& run) {
  const auto filled = static_cast<unsigned>(run.part() * kBarColumns);
  const std::string bar = std::string(filled, '#') + std::string(kBarColumns - std::min(kBarColumns, filled), '.');
  const double rate = static_cast<double>(run.histogram().total()) / std::max(1e-9, run.seconds());
  std::fprintf(stderr, "\r[%s] %3.0f %%  %s/s  p50 %s  p99 %s \033[K", bar.c_str(), run.part() * 100,
               countText(rate).c_str(), timeOf(run.histogram().percentile(0.5)).c_str(),
               timeOf(run.histogram().percentile(0.99)).c_str());
}

constexpr std::array<std::pair<const char*, double>, 5> kPercentiles{
    {{"p50", 0.5}, {"p90", 0.9}, {"p99", 0.99}, {"p99.9", 0.999}, {"p99.99", 0.9999}}};

void printAsJSON(const Run& run) {
  const Histogram& histogram = run.histogram();
  const auto seconds = [](std::uint64_t nanoseconds) { return NSNumber(static_cast<double>(nanoseconds) / 1e9); };
  NSMutableDictionary latency = NSMutableDictionary::dictionary();
  latency["min"] = seconds(histogram.least());
  for (const auto& [name, part] : kPercentiles) latency[name] = seconds(histogram.percentile(part));
  latency["max"] = seconds(histogram.greatest());
  NSMutableArray classes = NSMutableArray::array();
  for (const auto& [bound, count] : histogram.octaves()) {
    classes.addObject(NSArray{NSObject(seconds(bound)), NSObject(static_cast<std::int64_t>(count))});
  }
  const auto calls = static_cast<std::int64_t>(histogram.total());
  printJSON(NSDictionary{{"name", run.wishes().name},
                         {"concurrency", static_cast<std::int64_t>(run.wishes().concurrency)},
                         {"calls", calls},
                         {"seconds", run.seconds()},
                         {"perSecond", static_cast<double>(calls) / std::max(1e-9, run.seconds())},
                         {"latency", latency},
                         {"histogram", classes}});
}

void printAsText(const Run& run) {
  const Histogram& histogram = run.histogram();
  const std::uint64_t total = histogram.total();
  printLine(std::to_string(total) + " calls in " + durationText(run.seconds()) + ": " +
            countText(static_cast<double>(total) / std::max(1e-9, run.seconds())) + " a second, " +
            std::to_string(run.wishes().concurrency) + " under way at a time");
  Table percentiles({"", ""}, {false, true});
  percentiles.add({"least", timeOf(histogram.least())});
  for (const auto& [name, part] : kPercentiles) percentiles.add({name, timeOf(histogram.percentile(part))});
  percentiles.add({"greatest", timeOf(histogram.greatest())});
  for (const std::string& line : percentiles.lines(false)) printLine(line);
  Table table({"", "", ""}, {true, true, false});
  const auto octaves = histogram.octaves();
  std::uint64_t most = 1;
  for (const auto& [bound, count] : octaves) most = std::max(most, count);
  for (const auto& [bound, count] : octaves) {
    const auto length = static_cast<std::size_t>(40.0 * static_cast<double>(count) / static_cast<double>(most) + 0.5);
    table.add({"to " + timeOf(bound), std::to_string(count), styled(Style::cyan, std::string(length, '#'))});
  }
  for (const std::string& line : table.lines(false)) printLine(line);
}

int bench(const Context& context, const Wishes& wishes) {
  Signals signals;
  const auto run = std::make_shared<Run>(wishes, connected(wishes.name, wishes.timeout));
  const bool isLive = isTerminal(STDERR_FILENO) && !context.json;
  run->begin();
  while (!run->isDone() && !signals.wait(kRefresh)) {
    if (isLive) showProgress(*run);
  }
  run->end();
  if (isLive) std::fprintf(stderr, "\r\033[K");
  if (const auto error = run->error()) {
    throw CommandError(exitCodeOf(error->failure()),
                       error->text() + ", after " + std::to_string(run->histogram().total()) + " calls");
  }
  context.json ? printAsJSON(*run) : printAsText(*run);
  return 0;
}

}  // namespace

void addBench(CLI::App& app, Context& context) {
  auto* const command = app.add_subcommand("bench", "Measures how long a service takes to answer");
  const auto wishes = std::make_shared<Wishes>();
  command->add_option("NAME", wishes->name, "The name of the service")->required();
  command->add_option("JSON", wishes->message, "The message")->capture_default_str();
  auto* const duration = command->add_option("--duration", wishes->duration, "For so long")
                             ->type_name("SECONDS")
                             ->check(CLI::Range(0.001, 1e6))
                             ->capture_default_str();
  command->add_option("--count", wishes->count, "So many calls, instead of a time")
      ->type_name("NUMBER")
      ->check(CLI::Range(std::uint64_t{1}, std::uint64_t{1} << 62))
      ->excludes(duration);
  command->add_option("--concurrency", wishes->concurrency, "So many calls under way at a time")
      ->type_name("NUMBER")
      ->check(CLI::Range(1u, 1024u))
      ->capture_default_str();
  command->add_option("--timeout", wishes->timeout, "For so long at most for each call")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 1e9))
      ->capture_default_str();
  command->callback([&context, wishes] { context.chosen = [&context, wishes] { return bench(context, *wishes); }; });
}

}  // namespace velto::ctl
