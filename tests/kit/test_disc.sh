#!/usr/bin/env bash
# make-disc from a vendor folder made from scratch: what the image holds, that two builds are
# the same bytes, that the launcher started from the image's files (through autorun.sh, as a
# Linux desktop starts it) installs the vendor's package, and that bad input makes no image.
# Usage: test_disc.sh SOURCE_DIR BUILD_DIR
source "$(dirname "$0")/lib.sh"
source_dir=$1
export KESTRUN_BUILD_DIR=$2
make_disc="$source_dir/scripts/make-disc"

# The vendor's folder: the package carries Vantorel.app; AutoSetup installs it to VALUE.
vendor="$tmp/vendor"
app="$tmp/Applications/Vantorel.app"
package="$vendor/Vantorel.mpkg"
mkdir -p "$package/Contents/Resources/Vantorel.app/Contents/Resources" "$vendor/de.lproj"
printf '[System]\nVRVersion=4\nBuildVersion=2\nDebugVersion=1\nSPVersion=0\nCustomizeVersion=0\nMajorVersion=0\n[APP_PATH]\nVALUE=%s\nRUN_PROCESS_DLG=no\n' \
  "$app" > "$package/Contents/Resources/SysConfig.dat"
echo '<plist version="1.0"><dict/></plist>' > "$package/Contents/Resources/Vantorel.app/Contents/Info.plist"
cp "$package/Contents/Resources/SysConfig.dat" "$package/Contents/Resources/Vantorel.app/Contents/Resources/"
cat > "$vendor/AutoSetup" <<'SH'
#!/bin/sh
app=$(sed -n 's/^VALUE=//p' "$1/Contents/Resources/SysConfig.dat")
mkdir -p "$(dirname "$app")" && cp -R "$1/Contents/Resources/Vantorel.app" "$app"
SH
chmod 755 "$vendor/AutoSetup"
cp "$source_dir/kit/run_local_kestrun" "$vendor/"
echo '"INSTALL_DRIVER" = "Vendor text";' > "$vendor/de.lproj/custom.strings"

# ---- The Mac program: with a Mac OS X SDK and ld64 at hand (mac-env.sh finds them and sets
# MACOS_SDK), the discs below carry it; else that part is skipped, saying why.
source "$source_dir/scripts/mac-env.sh"
[ -z "$mac_missing" ] || echo "the Mac program's part is skipped: $mac_missing"
# A vendor's language folder replaces the shipped one whole, nib and all.
cp -R "$source_dir/resources/de.lproj/main.nib" "$vendor/de.lproj/"

image="$tmp/out/Kestrun.iso"
mkdir -p "$tmp/out"
expect "make-disc builds an image" "$make_disc" "$vendor" "$image" > "$tmp/make.out" 2>&1 || cat "$tmp/make.out"
listing=$(xorriso -indev "$image" -find / -exec lsdl 2>/dev/null)
for entry in "-rwxr-xr-x .* '/Launcher.app/Contents/Linux/Launcher'" \
             "-rwxr-xr-x .* '/Launcher.app/Contents/AutoSetup'" \
             "-rwxr-xr-x .* '/Launcher.app/Contents/run_local_kestrun'" \
             "-rw-r--r-- .* '/Launcher.app/Contents/Resources/Vantorel.mpkg/Contents/Resources/SysConfig.dat'" \
             "-rwxr-xr-x .* '/autorun.sh'" "-rwxr-xr-x .* '/.linux/open'"; do
  grep -q -- "^$entry\$" <<<"$listing" || fail "the image lacks $entry"
done
expect "the HFS+ partition is in the Apple partition map" \
  grep -q 'Apple_HFS' <(xorriso -indev "$image" -report_system_area plain 2>/dev/null)
# The Joliet tree has a supplementary volume descriptor (type 2) right after the primary one.
expect "the Joliet tree is written" \
  [ "$(dd if="$image" bs=2048 skip=17 count=1 2>/dev/null | head -c 6 | od -An -c | tr -d ' ')" = '002CD001' ]

# ---- The HFS+ volume as a Mac reads it: 7-Zip reads the Apple partition map and HFS+.
if [ -z "$mac_missing" ]; then
  sevenzip=$(command -v 7zz || command -v 7z) || fail "7-Zip is not installed (scripts/setup installs it)"
  partition=$("$sevenzip" l -slt -tAPM "$image" 2>/dev/null | sed -n 's/^Path = \(.*\.hfs\)$/\1/p' | head -n 1)
  "$sevenzip" e -tAPM "$image" "$partition" -so > "$tmp/volume.hfs" 2>/dev/null
  "$sevenzip" l -slt -tHFS "$tmp/volume.hfs" > "$tmp/volume.list" 2>&1 || fail "7-Zip cannot read the HFS+ volume '$partition'"
  for entry in "Kestrun/Launcher.app/Contents/MacOS/Launcher|-rwxr-xr-x" "Kestrun/Launcher.app/Contents/Info.plist|-rw-r--r--" \
               "Kestrun/Launcher.app/Contents/Resources/ja.lproj/custom.strings|-rw-r--r--"; do
    grep -A9 -x "Path = ${entry%|*}" "$tmp/volume.list" | grep -qx "Mode = ${entry#*|}" ||
      fail "the HFS+ volume lacks ${entry%|*} with mode ${entry#*|}"
  done
  "$sevenzip" x -tHFS "$tmp/volume.hfs" -o"$tmp/volume" > /dev/null 2>&1
  expect "the Mac program on the HFS+ volume passes the Mac check" \
    "$source_dir/scripts/mac-check" --bundle "$tmp/volume/Kestrun/Launcher.app" > "$tmp/mac-check.out" ||
    cat "$tmp/mac-check.out" >&2
fi
# Without the SDK a disc is still made, for Linux alone, and the vendor is told why a Mac
# cannot open it, also by the check; a Mac build that fails makes no disc.
(unset MACOS_SDK; "$make_disc" --check "$vendor" > /dev/null 2> "$tmp/check.err")
expect "the check says a Mac cannot open a disc without the Mac program" grep -q "a Mac cannot open this disc" "$tmp/check.err"
(unset MACOS_SDK; "$make_disc" --folder "$tmp/linux-only" "$vendor" > /dev/null 2> "$tmp/linux-only.err") ||
  fail "no disc without the SDK: $(tail -n 3 "$tmp/linux-only.err")"
expect "a disc without the SDK has no Contents/MacOS" [ ! -e "$tmp/linux-only/Launcher.app/Contents/MacOS" ]
expect "and says that a Mac cannot open it" grep -q "MACOS_SDK" "$tmp/linux-only.err"
mkdir -p "$tmp/nosdk" "$tmp/bad-mac"
status=0
MACOS_SDK="$tmp/nosdk" "$make_disc" "$vendor" "$tmp/bad-mac/a.iso" > "$tmp/bad-mac.out" 2>&1 || status=$?
[ "$status" -ne 0 ] && grep -q "not a Mac OS X SDK" "$tmp/bad-mac.out" && [ -z "$(ls -A "$tmp/bad-mac")" ] ||
  fail "a bad MACOS_SDK: status $status, $(tail -n 2 "$tmp/bad-mac.out"), left: $(ls -A "$tmp/bad-mac")"
# ----

cp "$image" "$tmp/first.iso"
sleep 1.1 # a date that crept in would differ now
touch "$package/Contents/Resources/SysConfig.dat"
"$make_disc" "$vendor" "$image" > /dev/null 2>&1
expect "two builds of the same input are the same bytes" cmp -s "$image" "$tmp/first.iso"

# The image's files where a Linux desktop mounts a disc; autorun.sh starts the launcher.
media="$tmp/media/Kestrun"
mkdir -p "$media"
xorriso -osirrox on -indev "$image" -extract / "$media" > /dev/null 2>&1
expect "the vendor's texts replace the shipped ones, as UTF-16 for the Mac" \
  grep -q 'Vendor text' <(iconv -f UTF-16 -t UTF-8 "$media/Launcher.app/Contents/Resources/de.lproj/custom.strings")
keep_fixed_paths
mkdir -m 700 "$tmp/run"
(unset DISPLAY WAYLAND_DISPLAY; XDG_RUNTIME_DIR="$tmp/run" "$media/autorun.sh" < /dev/null > "$tmp/autorun.out" 2>&1) ||
  fail "autorun.sh failed: $(cat "$tmp/autorun.out")"
for _ in $(seq 1 300); do
  [ -d "$app" ] && [ ! -e /tmp/qv_tmp_vantorel.mpkg ] && break
  sleep 0.1
done
for _ in $(seq 1 100); do # the launcher ends right after the script; let it close its log
  pgrep -f "$tmp/run/kestrun/Volumes/Kestrun/Launcher.app/Contents/Linux/Launcher" > /dev/null || break
  sleep 0.1
done
expect "the launcher from the image installs the vendor's package" [ -f "$app/Contents/Resources/SysConfig.dat" ]
expect "it took the disc's path" grep -q 'Install from dashboard path' /var/tmp/Kestrun.log
expect "the installer script removed the staged package" [ ! -e /tmp/qv_tmp_vantorel.mpkg ]

# From a terminal without a display the launcher stays on that terminal and asks there: the
# installed copy is made older, so the launcher asks whether to install the newer one.
sed -i 's/^VRVersion=4/VRVersion=3/' "$app/Contents/Resources/SysConfig.dat"
(unset DISPLAY WAYLAND_DISPLAY; XDG_RUNTIME_DIR="$tmp/run" LC_ALL=C \
  python3 "$(dirname "$0")/on_terminal.py" "newer version" '\x04' "$media/autorun.sh" > "$tmp/terminal.out" 2>&1) ||
  fail "autorun.sh on a terminal did not ask there: $(cat "$tmp/terminal.out")"
put_back_fixed_paths

# Bad input: a clear message, status not 0, no image and no partial file.
mkdir -p "$tmp/nopackage" "$tmp/noconfig/Vantorel.mpkg"
bad_cases=(
  "no package|$tmp/nopackage|$tmp/bad/a.iso|Vantorel.mpkg"
  "no SysConfig.dat|$tmp/noconfig|$tmp/bad/a.iso|SysConfig.dat is missing"
  "no folder for the image|$vendor|$tmp/bad/missing/a.iso|no such folder"
  "a folder in the image's place|$vendor|$tmp/bad|not a file"
  "a volume name with /|$vendor|$tmp/bad/a.iso|holds a \"/\"|--volume|a/b"
  "a volume name of 33 characters|$vendor|$tmp/bad/a.iso|longer than 32|--volume|$(printf 'K%.0s' {1..33})"
  "a volume name with \$|$vendor|$tmp/bad/a.iso|expands|--volume|Disc\$HOME"
  "no xorriso|$vendor|$tmp/bad/a.iso|xorriso is not installed|XORRISO=/nonexistent"
  "xorriso failing midway|$vendor|$tmp/bad/a.iso|could not write|XORRISO=$tmp/failing-xorriso"
)
printf '#!/bin/sh\necho partial > "$(echo "$@" | sed "s/.*-outdev \\([^ ]*\\).*/\\1/")"\nexit 5\n' > "$tmp/failing-xorriso"
chmod 755 "$tmp/failing-xorriso"
mkdir -p "$tmp/bad"
for row in "${bad_cases[@]}"; do
  IFS='|' read -r what dir out message option value <<<"$row"
  arguments=("$dir" "$out")
  environment=()
  case "${option:-}" in
    --volume) arguments=(--volume "$value" "${arguments[@]}") ;;
    XORRISO=*) environment=("$option") ;;
  esac
  status=0
  env "${environment[@]}" "$make_disc" "${arguments[@]}" > "$tmp/bad.out" 2>&1 || status=$?
  [ "$status" -ne 0 ] || fail "$what: status 0"
  grep -q -- "$message" "$tmp/bad.out" || fail "$what: no message \"$message\": $(tail -n 3 "$tmp/bad.out")"
  [ -z "$(ls -A "$tmp/bad")" ] || fail "$what: left $(ls -A "$tmp/bad")"
done
