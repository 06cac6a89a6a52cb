#pragma once

#include <stdexcept>
#include <string>
#include <utility>

#include "platform/foundation/Export.h"

// A programmer's error that the platform layer found out: a container changed while it was walked, a nil put into one,
// a container that nests without end. Nothing that a peer or the kernel does raises one.
class VELTO_EXPORT NSException : public std::runtime_error {
 public:
  NSException(std::string name, const std::string& reason) : std::runtime_error(reason), name_(std::move(name)) {}

  const std::string& name() const noexcept { return name_; }
  std::string reason() const { return what(); }

 private:
  std::string name_;
};
