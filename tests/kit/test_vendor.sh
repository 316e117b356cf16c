#!/usr/bin/env bash
# make-disc reads a vendor folder as a vendor writes one: language folders merge with the
# shipped ones file by file and are read with the launcher's own readers, files it does not
# know and programs without run bits are named, links are followed, and it runs with the
# options a Mac's tools have. Usage: test_vendor.sh SOURCE_DIR BUILD_DIR
source "$(dirname "$0")/lib.sh"
source_dir=$1
export KESTRUN_BUILD_DIR=$2
make_disc="$source_dir/scripts/make-disc"
shipped="$source_dir/resources"

make_vendor() { # <folder>: a package, AutoSetup and the script template, all as they should be
  mkdir -p "$1/Vantorel.mpkg/Contents/Resources"
  printf '[System]\nVRVersion=4\nBuildVersion=2\nDebugVersion=1\nSPVersion=0\nCustomizeVersion=0\nMajorVersion=0\n[APP_PATH]\nVALUE=/Applications/Vantorel.app\nRUN_PROCESS_DLG=yes\n' \
    > "$1/Vantorel.mpkg/Contents/Resources/SysConfig.dat"
  printf '#!/bin/sh\nexit 0\n' > "$1/AutoSetup"
  cp "$source_dir/kit/run_local_kestrun" "$1/"
  chmod 755 "$1/AutoSetup" "$1/run_local_kestrun"
}
run() { # <output file> <make-disc arguments...>: sets status
  local out=$1; shift
  status=0
  "$make_disc" "$@" > "$out" 2>&1 || status=$?
}
says() { # <output file> <text>
  grep -qF -- "$2" "$1" || fail "no \"$2\" in: $(grep -v '^ ' "$1" | tail -n 8)"
}

# --- Languages: merged file by file, every one read as the launcher reads it -----------------
vendor="$tmp/languages"
make_vendor "$vendor"
mkdir -p "$vendor/en.lproj" "$vendor/pt_BR.lproj" "$vendor/nl.lproj/main.nib" "$vendor/de.lproj/main.nib" \
  "$vendor/fr.lproj" "$vendor/es.lproj" "$vendor/Extras" "$vendor/Disc"
sed 's/"INSTALL_DRIVER" = "[^"]*"/"INSTALL_DRIVER" = "Vendor English"/' "$shipped/en.lproj/custom.strings" \
  > "$vendor/en.lproj/custom.strings"
cp "$vendor/en.lproj/custom.strings" "$vendor/pt_BR.lproj/"
cp "$shipped/en.lproj/main.nib/objects.xib" "$vendor/nl.lproj/main.nib/"
sed 's/>NO11</>NO12</' "$shipped/de.lproj/main.nib/objects.xib" > "$vendor/de.lproj/main.nib/objects.xib"
grep -v INSTALL_DRIVER "$shipped/fr.lproj/custom.strings" > "$vendor/fr.lproj/custom.strings"
head -c 3000 /dev/urandom > "$vendor/es.lproj/custom.strings"
mkdir -p "$vendor/German.lproj"
echo "not a picture" > "$vendor/Installer.png"
echo "read me" > "$vendor/ReadMe.txt"
echo "manual" > "$vendor/Disc/Manual.txt"
echo "not ours" > "$vendor/Disc/autorun.sh"
run "$tmp/out" --folder "$tmp/disc" "$vendor"
[ "$status" -eq 0 ] || fail "languages: status $status: $(tail -n 5 "$tmp/out")"
lang="$tmp/disc/Launcher.app/Contents/Resources"
expect "a custom.strings alone keeps the shipped English nib" [ -f "$lang/en.lproj/main.nib/objects.xib" ]
iconv -f UTF-16 -t UTF-8 "$lang/en.lproj/custom.strings" | grep -q 'Vendor English' ||
  fail "the vendor's English texts are not on the disc"
says "$tmp/out" "pt_BR.lproj has texts but no main.nib/objects.xib"
says "$tmp/out" "nl.lproj has a nib but no custom.strings"
says "$tmp/out" "de.lproj: window \"MessageBox\" has no control \"NO11\""
says "$tmp/out" "fr.lproj: custom.strings lacks INSTALL_DRIVER"
says "$tmp/out" "es.lproj: custom.strings cannot be read"
says "$tmp/out" "German.lproj is looked for only after the shipped de"
says "$tmp/out" "Installer.png is not a PNG picture"
says "$tmp/out" "ReadMe.txt is not a file the launcher uses"
says "$tmp/out" "Extras is not a file the launcher uses"
says "$tmp/out" "Disc/autorun.sh would replace the launcher's own"
grep -q 'warning: .*\(it\|ja\|zh_CN\)\.lproj' "$tmp/out" && fail "a shipped language warned about: $(cat "$tmp/out")"
expect "Disc/ goes to the disc's top" [ "$(cat "$tmp/disc/Manual.txt" 2>/dev/null)" = manual ]
expect "Disc/ does not replace autorun.sh" grep -q '^#!/bin/sh' "$tmp/disc/autorun.sh"
[ -e "$tmp/disc/ReadMe.txt" ] && fail "an unknown file went onto the disc"

# Without a readable English nib every user who falls back to English gets no box: no disc.
mkdir -p "$vendor/en.lproj/main.nib"
echo '<object class="NSIBObjectData"><array name="allObjects">' > "$vendor/en.lproj/main.nib/objects.xib"
run "$tmp/out" --folder "$tmp/broken" "$vendor"
[ "$status" -eq 2 ] || fail "a broken English nib: status $status"
says "$tmp/out" "error: en.lproj: main.nib/objects.xib cannot be read"
[ ! -e "$tmp/broken" ] || fail "a broken English nib: a disc folder was made"
run "$tmp/out" --check "$vendor"
[ "$status" -eq 2 ] || fail "--check of a broken English nib: status $status"

# --- The installing programs, links and the check's status --------------------------------
vendor="$tmp/programs"
make_vendor "$vendor"
run "$tmp/out" --check "$vendor"
[ "$status" -eq 0 ] || fail "--check of a clean folder: status $status: $(cat "$tmp/out")"
grep 'building' "$tmp/out" | grep -q 'Launcher\|PlatformGtk' && fail "--check builds the launcher: $(grep building "$tmp/out")"
chmod 644 "$vendor/AutoSetup" "$vendor/run_local_kestrun"
run "$tmp/out" --check "$vendor"
[ "$status" -eq 1 ] || fail "--check with warnings: status $status"
says "$tmp/out" "AutoSetup has no run bits: it cannot be run and nothing is installed"
says "$tmp/out" "run_local_kestrun is not a file with run bits: the launcher cannot run it and nothing is installed"
rm "$vendor/AutoSetup" "$vendor/run_local_kestrun"
run "$tmp/out" --check "$vendor"
says "$tmp/out" "no AutoSetup: the launcher runs run_local_kestrun only when AutoSetup is on the disc"
says "$tmp/out" "no run_local_kestrun: a disc stages the package and installs nothing"

# Top-level links are followed; an absolute link inside the package is named.
elsewhere="$tmp/elsewhere"
make_vendor "$elsewhere"
ln -s /etc/hostname "$elsewhere/Vantorel.mpkg/Contents/host"
linked="$tmp/linked"
mkdir "$linked"
for name in Vantorel.mpkg AutoSetup run_local_kestrun; do ln -s "$elsewhere/$name" "$linked/$name"; done
run "$tmp/out" --folder "$tmp/linked-disc" "$linked"
[ "$status" -eq 0 ] || fail "linked vendor folder: status $status: $(tail -n 5 "$tmp/out")"
contents="$tmp/linked-disc/Launcher.app/Contents"
[ -d "$contents/Resources/Vantorel.mpkg" ] && [ ! -L "$contents/Resources/Vantorel.mpkg" ] ||
  fail "a linked package is not copied"
[ -f "$contents/AutoSetup" ] && [ ! -L "$contents/AutoSetup" ] && [ -x "$contents/AutoSetup" ] ||
  fail "a linked AutoSetup is not copied with its run bits"
says "$tmp/out" "Vantorel.mpkg/Contents/host is a link to an absolute path"

# The disc's programs are stripped.
while IFS= read -r program; do
  [ "$(head -c 4 "$program" | od -An -tx1 | tr -d ' \n')" = 7f454c46 ] || continue
  readelf -S "$program" | grep -q '\.symtab\|\.debug_info' && fail "${program#"$tmp"/} is not stripped"
done < <(find "$tmp/linked-disc" -type f)

# Bad input with the status of the guide: missing or unreadable is 2.
mkdir -p "$tmp/nopackage" "$tmp/folderconfig/Vantorel.mpkg/Contents/Resources/SysConfig.dat"
for row in "no folder|$tmp/missing|no such folder" "no package|$tmp/nopackage|holds no Vantorel.mpkg" \
           "SysConfig.dat a folder|$tmp/folderconfig|is a folder, not a file"; do
  IFS='|' read -r what dir message <<<"$row"
  run "$tmp/out" --check "$dir"
  [ "$status" -eq 2 ] || fail "--check, $what: status $status"
  says "$tmp/out" "$message"
done

# --- Where vendors work: a Mac's tools, and none of the build tools ------------------------
# Stand-ins for date, touch, mv, stat, readlink, sed and find that refuse what only GNU has,
# and no nproc.
bsd="$tmp/bsd"
mkdir "$bsd"
for tool in date touch mv cp stat readlink sed find; do
  real=$(command -v "$tool")
  cat > "$bsd/$tool" <<SH
#!/bin/sh
for a in "\$@"; do
  case "$tool \$a" in
    *" --"?*|"date -d"|"touch -d"|"mv -T"|"readlink -f"|"sed -i"*|"stat -c"|"find -printf") echo "$tool: illegal option \$a" >&2; exit 64 ;;
  esac
done
exec "$real" "\$@"
SH
done
printf '#!/bin/sh\necho "nproc: command not found" >&2\nexit 127\n' > "$bsd/nproc"
chmod 755 "$bsd"/*
vendor="$tmp/portable"
make_vendor "$vendor"
mkdir -p "$tmp/images"
PATH="$bsd:$PATH" run "$tmp/out" "$vendor" "$tmp/images/bsd.iso"
[ "$status" -eq 0 ] || fail "with a Mac's tools: status $status: $(tail -n 5 "$tmp/out")"
expect "with a Mac's tools the image is made" [ -s "$tmp/images/bsd.iso" ]
grep -qi 'libisofs\|xorriso : \|Drive current' "$tmp/out" && fail "xorriso speaks: $(grep -i xorriso "$tmp/out")"
TZ=UTC xorriso -indev "$tmp/images/bsd.iso" -find /autorun.sh -exec lsdl 2>/dev/null | grep -q 'Jan  1  2010' ||
  fail "with a Mac's tools the image's dates are not 2010-01-01"

# A PATH with everything but cmake.
path_without "$tmp/nocmake" cmake
PATH="$tmp/nocmake" run "$tmp/out" --check "$vendor"
[ "$status" -eq 2 ] || fail "without cmake: status $status"
says "$tmp/out" "cmake is not installed: run scripts/setup"
