#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velto {

// How a service is started that nobody has started: a file NAME.service of lines "key=value", of which one is
//
//   Exec=PROGRAM ARGUMENT…      a program, by its path or its name in $PATH; texts in "…" or '…' hold blanks
//   SystemdUnit=NAME.service    a unit of the user's systemd
//
// Lines that are empty or begin with # or ; say nothing, nor does one in [brackets].
struct ServiceFile {
  std::string path;
  // The one or the other.
  std::vector<std::string> command;
  std::string unit;

  // None, and the reason, which names the line, when the text is not as said.
  static std::optional<ServiceFile> parse(std::string_view text, std::string& reason);
  // The file of the service in the first of the folders that has one. None when there is none, or, with a reason, when it
  // cannot be used.
  static std::optional<ServiceFile> find(const std::string& name, const std::vector<std::string>& folders,
                                         std::string& reason);
  // velto-ipc/services in $XDG_DATA_HOME (else ~/.local/share) and in all of $XDG_DATA_DIRS (else /usr/local/share and
  // /usr/share).
  static std::vector<std::string> folders();
};

}  // namespace velto
