#pragma once

#include <memory>
#include <sstream>
#include <string>

#include "tests/hostile/victim/VictimDelegate.h"
#include "tests/hostile/victim/Waiters.h"

namespace velto::hostile {

// What an attacker can have a victim do, by lines on its standard input. Each line is answered by one.
//
//   open                          opens the gate
//   waiters COUNT TIMEOUT ORDER   so many threads send {"do": ORDER} and wait; a negative time-out is for ever
//   figures                       "name=value …"
//   quit
class Victim {
 public:
  virtual ~Victim() = default;

  // Serves standard input until it ends or says so.
  void serve();

 protected:
  Victim() : delegate_(std::make_shared<VictimDelegate>()) {}

  virtual void startWaiters(std::size_t count, double timeout, const std::string& order) = 0;
  virtual std::string figures() = 0;
  // A line that only this kind of victim knows; empty if it does not either.
  virtual std::string obey(const std::string& order, std::istringstream& rest) = 0;

  const std::shared_ptr<VictimDelegate> delegate_;
  Waiters waiters_;

 private:
  std::string answerTo(const std::string& line);
};

// One line on standard output, at once.
void say(const std::string& line);

}  // namespace velto::hostile
