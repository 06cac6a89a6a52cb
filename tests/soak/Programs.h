#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/NSDictionary.h"
#include "tests/soak/SharedState.h"
#include "tests/support/ChildProcess.h"

namespace velto::soak {

std::string serviceName(std::size_t listener);

// Counts a reply, and reports it if it is not the one that is due to the request.
void check(SharedState& shared, const std::string& who, const NSDictionary& request, const NSDictionary& reply);

// This program again, with other arguments.
std::unique_ptr<testing::ChildProcess> startSelf(const std::vector<std::string>& arguments);
// The broker's program, listening when this returns; ends this program when it cannot be started.
std::unique_ptr<testing::ChildProcess> startBroker();

// In a child: it ends with its parent, and a key struck at the terminal is its parent's affair.
void becomeChild();
// Goes on as another program, as a child.
[[noreturn]] void becomeProgram(const std::string& path);

// Whether it has ended, of its own or by a signal.
bool hasEnded(const testing::ChildProcess& process);

}  // namespace velto::soak
