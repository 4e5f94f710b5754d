#!/bin/sh
# check_package.sh DEB CONSUMER_DIR: installs the Debian package DEB with apt-get (as root, on a
# machine without the source tree) and builds the consumers in CONSUMER_DIR against what it
# installed, through CMake and through pkg-config; then runs the installed tool.
set -eu
deb=$(realpath "$1")
consumer=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

export DEBIAN_FRONTEND=noninteractive
# libspdlog-dev: the package only suggests it, and the spdlog consumer needs it.
apt-get install -y -q --no-install-recommends "$deb" g++ cmake make pkgconf libspdlog-dev

expect() {  # expect TEXT COMMAND...: COMMAND prints TEXT (and a newline) and succeeds
  text=$1
  shift
  out=$("$@")
  [ "$out" = "$text" ] || { echo "check_package: $*: printed '$out', expected '$text'" >&2; exit 1; }
}

expect "CarrowPrivate carrowd-1" carrow --version
expect "CarrowPrivate carrowd-1" carrow --log=journal --version
carrow help volumes >/dev/null
# The example service's unit pair, installed but not enabled, names the installed program.
units=/usr/lib/systemd/system
[ -f "$units/carrow-volumes.socket" ] || { echo "check_package: no carrow-volumes.socket" >&2; exit 1; }
service_program=$(sed -n 's/^ExecStart=//p' "$units/carrow-volumes.service")
[ -x "$service_program" ] || { echo "check_package: ExecStart '$service_program' is not installed" >&2; exit 1; }

# CMake package, with both optional components.
cmake -S "$consumer" -B "$work/cmake" -DCMAKE_BUILD_TYPE=Release
cmake --build "$work/cmake"
expect "CarrowPrivate 1.0 ok" "$work/cmake/consumer"
expect "journal ok" "$work/cmake/journal_consumer"
expect "spdlog ok" "$work/cmake/spdlog_consumer"

# pkg-config.
c++ "$consumer/main.cpp" $(pkg-config --cflags --libs CarrowPrivate) -o "$work/consumer-pc"
expect "CarrowPrivate 1.0 ok" "$work/consumer-pc"
c++ "$consumer/journal_consumer.cpp" $(pkg-config --cflags --libs CarrowPrivateJournal) \
  -o "$work/journal-consumer-pc"
expect "journal ok" "$work/journal-consumer-pc"
echo "check_package: $(basename "$deb") installs and its consumers build"
