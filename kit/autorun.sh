#!/bin/sh
# Started by a Linux desktop from the top of this disc when the disc is inserted (the desktop
# asks the user first). Starts the launcher as a Mac user opens it: through this disc's own
# open command, which starts it only once however often it is asked, and which the launcher
# also uses to start the installed application.
#
# The launcher installs from a disc only when its path contains "/Volumes", where a Mac mounts
# discs. A Linux desktop mounts them elsewhere (/media/USER/NAME), so the launcher is started
# from a stand-in bundle at $XDG_RUNTIME_DIR/kestrun/Volumes/NAME/Launcher.app: its own copy
# of the Linux launcher program (Contents/Linux) and of AutoSetup (the launcher copies
# AutoSetup, and the installer script accepts no link), and links to everything else on the disc.
#
# Started from a terminal without a display, the launcher runs on that terminal, in the
# foreground, so that its question is asked there; otherwise it runs detached and its output
# is kept where open keeps it ($XDG_STATE_HOME/kestrun/Launcher.log).
disc=$(cd "$(dirname "$0")" && pwd)
PATH="$disc/.linux:$PATH"
export PATH
bundle="$disc/Launcher.app"
linux_program=Contents/Linux/Launcher # the Linux program in a bundle

start() { # <bundle>
  if [ -t 0 ] && [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
    exec "$1/$linux_program"
  fi
  exec open -a "$1"
}

case "$disc" in
  */Volumes/*) start "$bundle" ;;
esac

base=${XDG_RUNTIME_DIR:-}
if [ -z "$base" ] || [ ! -d "$base" ]; then
  base=/tmp/kestrun-autorun-$(id -u)
  mkdir -m 700 "$base" 2>/dev/null
fi
# Only a folder of this user's own that nobody else can write may hold the stand-in.
if [ -L "$base" ] || [ -z "$(find "$base" -prune -user "$(id -u)" ! -perm -020 ! -perm -002 2>/dev/null)" ]; then
  echo "autorun: no private folder for the launcher; starting it from the disc" >&2
  start "$bundle"
fi

standin="$base/kestrun/Volumes/$(basename "$disc")/Launcher.app"
mkdir -p "$standin/Contents/Linux" || start "$bundle"
# Files are replaced by renaming, so that a launcher already running keeps its own.
replace_with_copy() { # <source> <destination>
  cp -p "$1" "$2.new.$$" && mv -f "$2.new.$$" "$2"
}
replace_with_link() { # <source> <destination>
  rm -rf "$2.new.$$"
  ln -s "$1" "$2.new.$$" && mv -fT "$2.new.$$" "$2"
}
for entry in "$bundle/Contents/"* "$bundle/Contents/".[!.]*; do
  [ -e "$entry" ] || [ -L "$entry" ] || continue
  name=$(basename "$entry")
  case "$name" in
    Linux)
      # The launcher finds its bundle from its own path, so the program is a copy; its
      # modules may stay on the disc.
      for part in "$entry"/*; do
        if [ -f "$part" ]; then
          replace_with_copy "$part" "$standin/Contents/Linux/$(basename "$part")"
        else
          replace_with_link "$part" "$standin/Contents/Linux/$(basename "$part")"
        fi
      done ;;
    AutoSetup) replace_with_copy "$entry" "$standin/Contents/AutoSetup" ;;
    *) replace_with_link "$entry" "$standin/Contents/$name" ;;
  esac
done
start "$standin"
