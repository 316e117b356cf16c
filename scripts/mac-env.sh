# shellcheck shell=bash
# Sourced by the scripts and tests that take the Mac steps: finds the Mac OS X SDK and ld64.
# MACOS_SDK and MACOS_LD64 win; else the cache ${XDG_CACHE_HOME:-~/.cache}/kestrun holds them
# (a MacOSX*.sdk folder, and macld/ld64 as scripts/mac-toolchain leaves it). Exports both when
# found; otherwise mac_missing says what is missing.
mac_cache=${XDG_CACHE_HOME:-$HOME/.cache}/kestrun
mac_missing=
if [ -z "${MACOS_SDK:-}" ]; then
  for mac_sdk in "$mac_cache"/MacOSX*.sdk; do
    [ -d "$mac_sdk/usr/include" ] && MACOS_SDK=$mac_sdk && break
  done
fi
if [ -z "${MACOS_LD64:-}" ] && [ -x "$mac_cache/macld/ld64" ]; then
  MACOS_LD64=$mac_cache/macld/ld64
fi
if [ -z "${MACOS_SDK:-}" ]; then
  mac_missing="no Mac OS X SDK (MACOS_SDK is not set and $mac_cache holds no MacOSX*.sdk)"
elif [ ! -d "$MACOS_SDK/usr/include" ]; then
  mac_missing="MACOS_SDK=$MACOS_SDK is not a Mac OS X SDK"
elif [ -z "${MACOS_LD64:-}" ]; then
  mac_missing="no ld64 (MACOS_LD64 is not set, and $mac_cache/macld/ld64 is not there: scripts/mac-toolchain CCTOOLS_SRC builds it)"
elif [ ! -x "$MACOS_LD64" ]; then
  mac_missing="MACOS_LD64=$MACOS_LD64 is not a program"
else
  export MACOS_SDK MACOS_LD64
fi
