# shellcheck shell=bash
# Sourced by mac-build and mac-check, so that the objects checked are compiled as the ones
# linked. minimum: the oldest Mac OS X the program runs on. mac_cxx_flags SDK ARCH TRIPLE
# sets mac_flags to clang's flags for an ARCH object of the launcher against the SDK's
# libstdc++ 4.2 headers (TRIPLE: their folder, e.g. i686-apple-darwin10), from $root.
minimum=10.4
mac_cxx_flags() {
  local cxx4=$1/usr/include/c++/4.2.1
  mac_flags=(-target "$2-apple-macosx$minimum" -isysroot "$1" -std=c++17 -O2
    -nostdinc++ -isystem "$cxx4" -isystem "$cxx4/$3" -isystem "$cxx4/backward"
    -Wall -Wextra -Werror -Wno-multichar -I"$root" -I"$root/launcher")
}
