#!/usr/bin/env bash
# sysconfig-check: a clean package passes silently; each trap gets its warning; a file that
# cannot be read stops the check. Usage: test_check.sh SYSCONFIG_CHECK
source "$(dirname "$0")/lib.sh"
check=$1

versions='[System]\nVRVersion=2\nBuildVersion=1\nDebugVersion=1\nSPVersion=0\nCustomizeVersion=0\nMajorVersion=0\n'
app='[APP_PATH]\nVALUE=/Applications/Vantorel.app\nRUN_PROCESS_DLG=yes\n'

# name | file content (printf format) | expected warning
traps=(
  "blank after = in VALUE|$versions[APP_PATH]\nVALUE= /Applications/Vantorel.app\nRUN_PROCESS_DLG=yes\n|VALUE: a blank after \"=\""
  "blank after = in RUN_PROCESS_DLG|$versions[APP_PATH]\nVALUE=/Applications/Vantorel.app\nRUN_PROCESS_DLG= yes\n|RUN_PROCESS_DLG: a blank after \"=\""
  "blank before =|$versions[APP_PATH]\nVALUE =/Applications/Vantorel.app\nRUN_PROCESS_DLG=yes\n|VALUE: a blank before \"=\""
  "CR-only line ends|[System]\rVRVersion=2\rDebugVersion=1\r[APP_PATH]\rVALUE=/Applications/Vantorel.app\r|CR-only line ends"
  "a lone CR|[System]\nVRVersion=2\rBuildVersion=1\nDebugVersion=1\nSPVersion=0\nCustomizeVersion=0\nMajorVersion=0\n$app|carriage return(s) without a line feed"
  "\$ in the path|$versions[APP_PATH]\nVALUE=/Applications/\$HOME.app\nRUN_PROCESS_DLG=yes\n|VALUE holds \$"
  "backquote in the path|$versions[APP_PATH]\nVALUE=/Applications/\`id\`.app\nRUN_PROCESS_DLG=yes\n|VALUE holds \`"
  "double quote in the path|$versions[APP_PATH]\nVALUE=/Applications/a\"b.app\nRUN_PROCESS_DLG=yes\n|VALUE holds \""
  "absolute path without .app|$versions[APP_PATH]\nVALUE=/Applications/Vantorel\nRUN_PROCESS_DLG=yes\n|does not end in \".app\""
  "relative path|$versions[APP_PATH]\nVALUE=Applications/Vantorel.app\nRUN_PROCESS_DLG=yes\n|not an absolute path"
  "missing version key|[System]\nVRVersion=2\nBuildVersion=1\nDebugVersion=1\nSPVersion=0\nMajorVersion=0\n$app|CustomizeVersion is missing"
  "key in another case|[System]\nvrversion=2\nBuildVersion=1\nDebugVersion=1\nSPVersion=0\nCustomizeVersion=0\nMajorVersion=0\n$app|VRVersion is missing"
  "missing VALUE|$versions[APP_PATH]\nRUN_PROCESS_DLG=yes\n|VALUE is missing"
  "version not a whole number|[System]\nVRVersion=2.5\nBuildVersion=1\nDebugVersion=1\nSPVersion=0\nCustomizeVersion=0\nMajorVersion=0\n$app|it reads as 2"
  "key in another case, the cause|[System]\nvrversion=2\nBuildVersion=1\nDebugVersion=1\nSPVersion=0\nCustomizeVersion=0\nMajorVersion=0\n$app|written \"vrversion\""
  "a tab before a key|[System]\n\tVRVersion=2\nBuildVersion=1\nDebugVersion=1\nSPVersion=0\nCustomizeVersion=0\nMajorVersion=0\n$app|VRVersion is missing from [System] (a tab before it"
  "a key after a line that ends the section|[System]\nBuildVersion=1\nDebugVersion=1\nSPVersion=0\nCustomizeVersion=0\nMajorVersion=0\nNote=[old]\nVRVersion=2\n$app|which holds both [ and ]"
  "blanks around a section name|[ System ]\nVRVersion=2\nBuildVersion=1\nDebugVersion=1\nSPVersion=0\nCustomizeVersion=0\nMajorVersion=0\n$app|[System] not found (the header \"[ System ]\" has a blank or tab"
  "a section name in another case|$versions[app_path]\nVALUE=/Applications/Vantorel.app\n|[APP_PATH] not found (the header \"[app_path]\" is in another case"
  "a section missing|$versions|section [APP_PATH] not found (no line holds"
  "a byte-order mark|\xef\xbb\xbf$versions$app|byte-order mark"
  "both layout fields 0|[System]\nVRVersion=2\nBuildVersion=1\nDebugVersion=0\nSPVersion=0\nCustomizeVersion=0\nMajorVersion=0\n$app|both 0"
)

printf "$versions$app" > "$tmp/clean.dat"
output=$("$check" "$tmp/clean.dat"); status=$?
[ "$status" -eq 0 ] || fail "a clean file: status $status"
grep -q warning <<<"$output" && fail "a clean file: $output"
grep -q '^  VALUE  *"/Applications/Vantorel.app"$' <<<"$output" || fail "a clean file: the path is not shown: $output"

for row in "${traps[@]}"; do
  IFS='|' read -r what content expected <<<"$row"
  printf "$content" > "$tmp/trap.dat"
  output=$("$check" "$tmp/trap.dat"); status=$?
  [ "$status" -eq 1 ] || fail "$what: status $status"
  grep -qF -- "warning: " <<<"$output" && grep -F -- "$expected" <<<"$output" | grep -q '^warning:' ||
    fail "$what: no warning \"$expected\":"$'\n'"$output"
done

# UTF-16 text reads as nothing at all: the cause is named, not six missing keys.
printf "$versions$app" | iconv -f UTF-8 -t UTF-16 > "$tmp/utf16.dat"
output=$("$check" "$tmp/utf16.dat")
grep -q '^warning: the file is UTF-16' <<<"$output" || fail "UTF-16: the cause is not named: $output"
grep -q 'VRVersion is missing' <<<"$output" && fail "UTF-16: each key named missing: $output"

# Garbage is read as the launcher reads it: warnings, no crash.
head -c 65536 /dev/urandom > "$tmp/garbage.dat"
status=0
"$check" "$tmp/garbage.dat" > "$tmp/out" 2>&1 || status=$?
[ "$status" -eq 1 ] || fail "garbage: status $status: $(tail -n 3 "$tmp/out")"

# The whole package or its file; a file that cannot be read ends the check with status 2.
mkdir -p "$tmp/Vantorel.mpkg/Contents/Resources"
cp "$tmp/clean.dat" "$tmp/Vantorel.mpkg/Contents/Resources/SysConfig.dat"
"$check" "$tmp/Vantorel.mpkg" > /dev/null || fail "a package folder is not read"
mkfifo "$tmp/fifo.dat"
mkdir -p "$tmp/empty.mpkg" "$tmp/folder.mpkg/Contents/Resources/SysConfig.dat"
for unreadable in "$tmp/missing.dat" "$tmp/fifo.dat" "$tmp/empty.mpkg" "$tmp/folder.mpkg"; do
  status=0
  timeout 5 "$check" "$unreadable" > "$tmp/out" 2>&1 || status=$?
  [ "$status" -eq 2 ] || fail "$unreadable: status $status"
done
grep -q 'SysConfig.dat: a folder, not a file' "$tmp/out" || fail "a folder in the file's place: $(cat "$tmp/out")"
