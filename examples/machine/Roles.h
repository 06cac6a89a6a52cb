#pragma once

#include <memory>
#include <string>
#include <vector>

#include "examples/machine/ClientEvents.h"
#include "examples/machine/Transcript.h"

namespace machine {

// The two things that the client program can do, each with a connection of its own that is ready. Both end it.

// Asks for facts, is asked by the listener, meets a refusal and a time-out, and closes.
void playFacts(VeltoConnection& connection, ClientEvents& events, Transcript& transcript);
// Fetches files chunk by chunk, looks for a listener that does not exist, and has the listener close.
void playFiles(VeltoConnection& connection, ClientEvents& events, Transcript& transcript,
               const std::vector<std::string>& paths);

// How long an answer may take that ought to come at once.
inline constexpr double kAnswerSeconds = 10.0;

}  // namespace machine
