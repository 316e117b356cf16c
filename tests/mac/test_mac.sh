#!/usr/bin/env bash
# The Mac steps refuse bad input with the reason and a status other than 0, and leave nothing
# half made: no SDK, no linker, a linker that fails, an SDK without i386 stubs, a cctools-port
# folder that does not build. The Mach-O check passes a 10.4 program and names what is wrong
# with others. Usage: test_mac.sh SOURCE_DIR
source "$(dirname "$0")/../kit/lib.sh"
source_dir=$1
mac_build="$source_dir/scripts/mac-build"
mac_check="$source_dir/scripts/mac-check"

# refused <description> <message> <command...>: fails with the message, makes no bundle.
refused() {
  local what=$1 message=$2 status=0
  shift 2
  "$@" > "$tmp/out" 2>&1 || status=$?
  [ "$status" -ne 0 ] || fail "$what: status 0"
  grep -qF -- "$message" "$tmp/out" || fail "$what: no \"$message\" in: $(tail -n 3 "$tmp/out")"
  [ ! -e "$tmp/out.app" ] || fail "$what: a bundle was made"
}

# Without an SDK or a linker anywhere (an empty cache).
mkdir -p "$tmp/empty-cache"
refused "no SDK" "no Mac OS X SDK" env -u MACOS_SDK -u MACOS_LD64 XDG_CACHE_HOME="$tmp/empty-cache" "$mac_build" "$tmp/out.app"
refused "a folder that is no SDK" "is not a Mac OS X SDK" env MACOS_SDK="$tmp" "$mac_build" "$tmp/out.app"

# String tables for the bundle: UTF-8 (with or without its mark) and Mac Roman become UTF-16
# with a byte-order mark; UTF-16 either way round stays as it is.
utf16="$source_dir/resources/utf16-strings.sh"
printf '"k" = "caf\xc3\xa9 \xe6\x97\xa5";\n' > "$tmp/utf8.strings"
printf '\xef\xbb\xbf"k" = "caf\xc3\xa9 \xe6\x97\xa5";\n' > "$tmp/marked.strings"
printf '"k" = "caf\x8e";\n' > "$tmp/roman.strings"
{ printf '\xfe\xff'; iconv -f UTF-8 -t UTF-16BE "$tmp/utf8.strings"; } > "$tmp/big.strings"
for table in utf8 marked roman big; do
  sh "$utf16" "$tmp/$table.strings" "$tmp/$table.out" || fail "$table: not written"
  case "$table" in roman) want='"k" = "café";' ;; *) want='"k" = "café 日";' ;; esac
  case "$(head -c 2 "$tmp/$table.out" | od -An -tx1 | tr -d ' \n')" in
    fffe|feff) [ "$(iconv -f UTF-16 -t UTF-8 "$tmp/$table.out")" = "$want" ] || fail "$table: reads $(iconv -f UTF-16 -t UTF-8 "$tmp/$table.out")" ;;
    *) fail "$table: no byte-order mark" ;;
  esac
done
cmp -s "$tmp/big.strings" "$tmp/big.out" || fail "a UTF-16 table was rewritten"

# The toolchain script, on folders that are not a buildable cctools-port.
toolchain="$source_dir/scripts/mac-toolchain"
export MACLD_DIR="$tmp/macld"
refused "a folder without cctools" "neither a cctools-port folder" "$toolchain" "$tmp/empty-cache"
mkdir -p "$tmp/broken/cctools/ld64"
printf '#!/bin/sh\necho "configure.ac: cannot read" >&2\nexit 1\n' > "$tmp/broken/cctools/autogen.sh"
chmod 755 "$tmp/broken/cctools/autogen.sh"
refused "a source that does not build" "autogen failed" "$toolchain" "$tmp/broken"
grep -qF "configure.ac: cannot read" "$tmp/out" || fail "the failed step's output is not shown"
[ ! -e "$MACLD_DIR/ld64" ] || fail "a failed toolchain build left a linker"

source "$source_dir/scripts/mac-env.sh"
if [ -n "$mac_missing" ]; then
  echo "SKIP the cases that link: $mac_missing"
  [ "$failures" -ne 0 ] || exit 77
  exit 1
fi
lipo=$(dirname "$MACOS_LD64")/lipo

refused "no linker" "MACOS_LD64=$tmp/none is not a program" env MACOS_LD64="$tmp/none" "$mac_build" "$tmp/out.app"
printf '#!/bin/sh\necho "ld: cannot map the output" >&2\nexit 3\n' > "$tmp/failing-ld"
chmod 755 "$tmp/failing-ld"
refused "a failing linker" "could not link the Mac program (status 3" \
  env MACOS_LD64="$tmp/failing-ld" "$mac_build" "$tmp/out.app"
grep -qF "ld: cannot map the output" "$tmp/out" || fail "the linker's own words are not shown"
# An SDK whose stubs are for x86_64 only.
if [ -x "$lipo" ]; then
  mkdir -p "$tmp/sdk64/usr/lib"
  ln -s "$MACOS_SDK/usr/include" "$tmp/sdk64/usr/include"
  for stub in libSystem.dylib crt1.o; do
    "$lipo" -thin x86_64 "$MACOS_SDK/usr/lib/$stub" -output "$tmp/sdk64/usr/lib/$stub"
  done
  refused "an SDK without i386 stubs" "has no i386 part" env MACOS_SDK="$tmp/sdk64" "$mac_build" "$tmp/out.app"
else
  fail "no lipo beside $MACOS_LD64"
fi

# A small 10.4 program in a bundle passes the check; each fault below is named.
flags=(-target i386-apple-macosx10.4 -isysroot "$MACOS_SDK")
mkdir -p "$tmp/objects"
echo 'int main() { return 0; }' > "$tmp/main.c"
clang "${flags[@]}" -c "$tmp/main.c" -o "$tmp/objects/main.o" || fail "clang cannot compile for Mac OS X 10.4"
expect "mac-build links given objects" "$mac_build" --objects "$tmp/objects" "$tmp/good.app" > "$tmp/out" 2>&1
expect "a 10.4 program and its bundle pass" "$mac_check" --bundle "$tmp/good.app" > "$tmp/out" 2>&1 || cat "$tmp/out"

# variant <name> <message...>: the good bundle with one fault, which the check must name.
variant() {
  local name=$1
  shift
  "$mac_check" --bundle "$tmp/$name.app" > "$tmp/check.out" 2>&1 && fail "$name: the check passed"
  for message in "$@"; do
    grep -qF -- "$message" "$tmp/check.out" || fail "$name: no \"$message\" in: $(grep FAIL "$tmp/check.out")"
  done
}
copy() { rm -rf "$tmp/$1.app"; cp -R "$tmp/good.app" "$tmp/$1.app"; }
link() { # <name> <ld64 options...>: the good bundle with the program linked otherwise
  local name=$1
  shift
  copy "$name"
  "$MACOS_LD64" -dynamic -arch i386 -syslibroot "$MACOS_SDK" "$@" "$tmp/objects/main.o" -lSystem \
    -o "$tmp/$name.app/Contents/MacOS/Launcher" 2> /dev/null || fail "$name: ld64 failed"
}
# Linked for 10.8: started through LC_MAIN with compressed binding info, which 10.4 cannot load.
link for-10.8 -macosx_version_min 10.8
variant for-10.8 "LC_UNIXTHREAD eip 'none'" "minimum Mac OS X '10.8'" "LC_DYLD_INFO_ONLY" "LC_MAIN"
link flat -macosx_version_min 10.4 -flat_namespace -lcrt1.o
variant flat "flat namespace" "imports not bound"
copy linux
cp /bin/true "$tmp/linux.app/Contents/MacOS/Launcher"
variant linux "not an i386 Mach-O executable"
copy extra
cp /bin/true "$tmp/extra.app/Contents/MacOS/Helper"
echo '<plist><dict><key>CFBundleExecutable</key><string>Launcher</string></dict></plist>' > "$tmp/extra.app/Contents/Info.plist"
echo 'APPLKstr' > "$tmp/extra.app/Contents/PkgInfo"
variant extra "Contents/MacOS holds 'Helper Launcher'" "CFBundlePackageType ''" "PkgInfo is not"
copy tables
echo '"A" = "Ä";' > "$tmp/tables.app/Contents/Resources/de.lproj/custom.strings"
rm "$tmp/tables.app/Contents/Resources/fr.lproj/main.nib/objects.xib"
variant tables "de.lproj/custom.strings (not UTF-16" "fr.lproj/main.nib"
