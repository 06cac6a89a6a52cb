# shellcheck shell=bash
# What this project needs from Debian 12, and how a script gets it.

# To build the libraries, the broker, veltoctl, the pages of the manual and the examples.
build_packages=(g++ cmake ninja-build pkg-config libcli11-dev libssl-dev libsystemd-dev nlohmann-json3-dev scdoc)
# To build and run the tests.
test_packages=("${build_packages[@]}" libcbor-dev libgtest-dev libgmock-dev python3 spin)
# To check the code in every way.
# shellcheck disable=SC2034
check_packages=("${test_packages[@]}" clang libclang-rt-14-dev clang-format clang-tidy shellcheck valgrind)

# To measure, beside other libraries and with what counts system calls.
# shellcheck disable=SC2034
benchmark_packages=("${build_packages[@]}" libbenchmark-dev libmsgpack-cxx-dev python3 dbus-broker
  dbus-daemon libzmq3-dev libnng-dev libcapnp-dev capnproto libgrpc++-dev libprotobuf-dev protobuf-compiler
  protobuf-compiler-grpc linux-perf strace)

# install_packages PACKAGE...: installs those that are missing, and says which.
install_packages() {
  local package missing=() as_root=()
  for package in "$@"; do
    dpkg-query --show --showformat '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed ||
      missing+=("$package")
  done
  ((${#missing[@]})) || return 0
  echo "Installing ${missing[*]}"
  if ((EUID != 0)); then
    command -v sudo >/dev/null || {
      echo "There is no sudo: install them as root, then run this again." >&2
      return 1
    }
    as_root=(sudo)
  fi
  quietly "${as_root[@]}" apt-get update --quiet
  quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install --quiet --yes --no-install-recommends "${missing[@]}"
}

# quietly COMMAND...: what it says is shown only if it fails.
quietly() {
  local words
  words=$("$@" 2>&1) || {
    local status=$?
    printf '%s\n' "$words"
    return $status
  }
}
