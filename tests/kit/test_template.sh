#!/usr/bin/env bash
# The installer script template refuses staged copies in /tmp that are not the user's own, are
# symbolic links, can be written by others or differ from the disc, removing those of the
# user's own; it installs from good ones and cleans up. It says so on standard error and on
# the desktop (notify-send) where it can.
# Usage: test_template.sh SCRIPT (the template, or a script built on it)
source "$(dirname "$0")/lib.sh"
template=$1
staged=/tmp/qv_tmp_vantorel.mpkg
copy=/tmp/AutoSetup

# A disc's Contents: the script, AutoSetup (leaves a mark when run) and a package of two files.
contents="$tmp/Volumes/Kestrun/Launcher.app/Contents"
package="$contents/Resources/Vantorel.mpkg"
mkdir -p "$package/Contents/Resources"
cp "$template" "$contents/run_local_kestrun"
printf '#!/bin/sh\necho "$1" > "%s/autosetup-ran"\n' "$tmp" > "$contents/AutoSetup"
chmod 755 "$contents/AutoSetup"
echo "[System]" > "$package/Contents/Resources/SysConfig.dat"
echo "payload 1234" > "$package/Contents/Resources/payload"

keep_fixed_paths
stage() { # as the launcher does
  rm -rf "$staged" "$copy"
  cp -R "$package" "$staged"
  cp -R "$contents/AutoSetup" "$copy"
}
other_user=$(getent passwd nobody | cut -d: -f3)
# notify-send stands in for the desktop: it notes what it was asked to show.
mkdir "$tmp/desktop"
printf '#!/bin/sh\nprintf "%%s|%%s\\n" "$1" "$2" >> "%s/notified"\n' "$tmp" > "$tmp/desktop/notify-send"
chmod 755 "$tmp/desktop/notify-send"
export PATH="$tmp/desktop:$PATH"

# name | how the staged copies are spoiled | what the refusal says | what of the user's own is removed
cases=(
  "AutoSetup a symbolic link|rm $copy; ln -s $contents/AutoSetup $copy|symbolic link|$copy"
  "package a symbolic link|rm -rf $staged; ln -s $package $staged|symbolic link|$staged"
  "package another user's|chown -R $other_user $staged|another user|"
  "AutoSetup another user's|chown $other_user $copy|another user|"
  "a file in the package of another user|chown $other_user $staged/Contents/Resources/payload|another user|"
  "a file others can write|chmod o+w $staged/Contents/Resources/payload|others can write|$staged"
  "a file changed, same size|echo 'payload 9999' > $staged/Contents/Resources/payload|does not match|$staged"
  "a file missing (interrupted copy)|rm $staged/Contents/Resources/payload|does not match|$staged"
  "a file too many|echo x > $staged/Contents/extra|does not match|$staged"
  "AutoSetup changed|echo 'exit 0' >> $copy|does not match|$copy"
  "AutoSetup a folder (left by an earlier run)|rm $copy; mkdir $copy; cp $contents/AutoSetup $copy/|does not match|$copy"
  "no staged package|rm -rf $staged|missing|"
)
for row in "${cases[@]}"; do
  IFS='|' read -r what spoil message removed <<<"$row"
  if [ "$(id -u)" -ne 0 ] && [[ "$spoil" == chown* ]]; then
    continue # only root can give a file away
  fi
  stage
  eval "$spoil"
  rm -f "$tmp/autosetup-ran" "$tmp/notified"
  status=0
  "$contents/run_local_kestrun" > "$tmp/out" 2>&1 || status=$?
  [ "$status" -ne 0 ] || fail "$what: status 0"
  grep -q "$message" "$tmp/out" || fail "$what: said: $(cat "$tmp/out")"
  [ ! -e "$tmp/autosetup-ran" ] || fail "$what: AutoSetup ran"
  grep -q "^Vantorel was not installed|.*$message" "$tmp/notified" 2>/dev/null ||
    fail "$what: the desktop was not told: $(cat "$tmp/notified" 2>&1)"
  if [ -n "$removed" ] && { [ -e "$removed" ] || [ -L "$removed" ]; }; then
    fail "$what: $removed stays"
  fi
done

stage
status=0
"$contents/run_local_kestrun" > "$tmp/out" 2>&1 || status=$?
[ "$status" -eq 0 ] || fail "good copies: status $status: $(cat "$tmp/out")"
[ "$(cat "$tmp/autosetup-ran" 2>/dev/null)" = "$staged" ] || fail "good copies: AutoSetup did not run on the package"
[ ! -e "$staged" ] || fail "good copies: the staged package stays"
[ ! -e "$copy" ] || fail "good copies: $copy stays"
grep -q '^run_local_kestrun: Vantorel is installed' "$tmp/out" || fail "good copies: not said: $(cat "$tmp/out")"
grep -q '^Vantorel is installed|' "$tmp/notified" || fail "good copies: the desktop was not told"

# Without notify-send the refusal is still said, on standard error.
path_without "$tmp/no-desktop" notify-send
stage
rm -rf "$staged"
status=0
PATH="$tmp/no-desktop" "$contents/run_local_kestrun" > "$tmp/out" 2>&1 || status=$?
[ "$status" -eq 1 ] || fail "no notify-send: status $status"
grep -q 'nothing installed' "$tmp/out" || fail "no notify-send: said $(cat "$tmp/out")"
