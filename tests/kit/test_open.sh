#!/usr/bin/env bash
# open starts an application once: starts while it runs (0.3 s apart, or at the same moment)
# start nothing more and succeed; once it has ended it starts again; another application is
# not held up. What the program says is kept in a file; an Info.plist that is a pipe is
# refused at once. Usage: test_open.sh OPEN
source "$(dirname "$0")/lib.sh"
open=$1
export XDG_RUNTIME_DIR="$tmp/run" XDG_STATE_HOME="$tmp/state"
mkdir -m 700 "$XDG_RUNTIME_DIR"

bundle() { # <name>: a bundle whose program notes each start, then runs for 1.5 s
  mkdir -p "$tmp/$1.app/Contents/MacOS"
  printf '<plist version="1.0"><dict><key>CFBundleExecutable</key><string>%s</string></dict></plist>\n' "$1" \
    > "$tmp/$1.app/Contents/Info.plist"
  printf '#!/bin/sh\necho started >> "%s/%s.starts"\necho "%s says"\necho "%s complains" >&2\nsleep 1.5\n' \
    "$tmp" "$1" "$1" "$1" > "$tmp/$1.app/Contents/MacOS/$1"
  chmod 755 "$tmp/$1.app/Contents/MacOS/$1"
}
starts() { sleep 0.3; wc -l < "$tmp/$1.starts" 2>/dev/null || echo 0; }
bundle A
bundle B

expect "the first start succeeds" "$open" -a "$tmp/A.app"
sleep 0.3
expect "a second start while it runs succeeds" "$open" -a "$tmp/A.app"
for _ in 1 2 3; do "$open" -a "$tmp/A.app" & done
expect "another application starts meanwhile" "$open" -a "$tmp/B.app"
wait
[ "$(starts A)" -eq 1 ] || fail "A started $(starts A) times while running"
[ "$(starts B)" -eq 1 ] || fail "B started $(starts B) times"
for _ in 1 2 3 4 5 6 7 8 9 10; do # A writes right after it notes its start
  [ "$(cat "$tmp/state/kestrun/A.log" 2>/dev/null)" = "A says"$'\n'"A complains" ] && break
  sleep 0.1
done
[ "$(cat "$tmp/state/kestrun/A.log" 2>/dev/null)" = "A says"$'\n'"A complains" ] ||
  fail "A's output is not kept in \$XDG_STATE_HOME/kestrun/A.log: $(cat "$tmp/state/kestrun/A.log" 2>&1)"
sleep 1.5
expect "a start after it ended succeeds" "$open" -a "$tmp/A.app"
[ "$(starts A)" -eq 2 ] || fail "A was not started again after it ended"
# The instance is the program, whichever path names it.
ln -s "$tmp/A.app" "$tmp/A-link.app"
expect "a start through a link succeeds" "$open" -a "$tmp/A-link.app"
[ "$(starts A)" -eq 2 ] || fail "a link to the running application started it again"
status=0
"$open" -a "$tmp/missing.app" 2>/dev/null || status=$?
[ "$status" -ne 0 ] || fail "a missing application: status 0"

# A pipe in the place of Info.plist: refused, not read (which would wait for a writer).
bundle P
rm "$tmp/P.app/Contents/Info.plist"
mkfifo "$tmp/P.app/Contents/Info.plist"
status=0
timeout 5 "$open" -a "$tmp/P.app" 2> "$tmp/P.err" || status=$?
[ "$status" -eq 1 ] || fail "an Info.plist pipe: status $status"
grep -q 'Info.plist: not a regular file' "$tmp/P.err" || fail "an Info.plist pipe: said $(cat "$tmp/P.err")"
sleep 1.6

# A bundle serving both systems: open runs the Linux program, never the Mac one; a bundle
# holding only a Mac program is refused with the reason.
both="$tmp/Both.app/Contents"
mkdir -p "$both/MacOS" "$both/Linux"
printf '<plist version="1.0"><dict><key>CFBundleExecutable</key><string>Both</string></dict></plist>\n' > "$both/Info.plist"
printf '\xce\xfa\xed\xfe' > "$both/MacOS/Both" # a 32-bit Mach-O as an Intel Mac writes it
printf '#!/bin/sh\necho linux >> "%s/Both.starts"\n' "$tmp" > "$both/Linux/Both"
chmod 755 "$both/MacOS/Both" "$both/Linux/Both"
expect "a bundle for both systems starts" "$open" -a "$tmp/Both.app"
sleep 0.3
expect "its Linux program ran" grep -qx linux "$tmp/Both.starts"
rm "$both/Linux/Both"
status=0
"$open" -a "$tmp/Both.app" 2> "$tmp/mac-only.err" || status=$?
[ "$status" -ne 0 ] || fail "a bundle with only a Mac program: status 0"
grep -q "only a Mac OS X program" "$tmp/mac-only.err" || fail "no reason for the Mac-only bundle: $(cat "$tmp/mac-only.err")"
