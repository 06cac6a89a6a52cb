// /proc is text: each fact is one file, read whole and taken apart.

#include "examples/machine/MachineFacts.h"

#include <fstream>
#include <string>

namespace machine {

namespace {

// "MemTotal:   16301084 kB", "model name\t: …": the lines of /proc/meminfo and /proc/cpuinfo.
struct Line {
  std::string name;
  std::string value;
};

bool readLine(std::ifstream& file, Line& line) {
  std::string text;
  if (!std::getline(file, text)) return false;
  const auto colon = text.find(':');
  line.name = text.substr(0, text.find_last_not_of(" \t:", colon) + 1);
  const auto value = colon == text.npos ? colon : text.find_first_not_of(" \t", colon + 1);
  line.value = value == text.npos ? "" : text.substr(value);
  return true;
}

// "2048 kB" as bytes.
std::int64_t bytesOf(const std::string& amount) {
  return std::stoll(amount) * 1024;
}

}  // namespace

NSDictionary load() {
  std::ifstream file("/proc/loadavg");
  double one = 0;
  double five = 0;
  double fifteen = 0;
  if (!(file >> one >> five >> fifteen)) return NSDictionary::dictionary();
  return {{"1 minute", one}, {"5 minutes", five}, {"15 minutes", fifteen}};
}

NSDictionary memory() {
  std::ifstream file("/proc/meminfo");
  auto answer = NSMutableDictionary::dictionary();
  for (Line line; readLine(file, line);) {
    if (line.name == "MemTotal") answer.setObject(bytesOf(line.value), "total");
    if (line.name == "MemAvailable") answer.setObject(bytesOf(line.value), "available");
  }
  return answer;
}

NSDictionary uptime() {
  std::ifstream file("/proc/uptime");
  double seconds = 0;
  if (!(file >> seconds)) return NSDictionary::dictionary();
  return {{"seconds", seconds}};
}

NSDictionary processor() {
  std::ifstream file("/proc/cpuinfo");
  auto answer = NSMutableDictionary::dictionary();
  std::int64_t count = 0;
  for (Line line; readLine(file, line);) {
    if (line.name == "processor") ++count;
    if (line.name == "model name") answer.setObject(line.value, "model");
  }
  answer.setObject(count, "count");
  return answer;
}

NSDictionary process(std::int64_t number) {
  std::ifstream file("/proc/" + std::to_string(number) + "/comm");
  std::string name;
  if (!std::getline(file, name)) {
    return {{"error", NSString::stringWithFormat("there is no process %d", number)}};
  }
  return {{"name", name}};
}

}  // namespace machine
