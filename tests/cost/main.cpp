// As many exchanges as are asked for, for whoever counts what they cost.
#include <cstdint>
#include <cstdlib>

#include "benchmarks/Exchange.h"

int main(int argc, char** argv) {
  const std::int64_t count = argc > 1 ? std::strtoll(argv[1], nullptr, 10) : 0;
  velto::benchmarks::Request request;
  for (request.number = 1; request.number <= count; ++request.number) {
    const double expected = 2.0 * static_cast<double>(request.number) + 0.5;
    if (velto::benchmarks::exchangeValues(request) != expected) return 1;
  }
  return 0;
}
