# Shared by the kit's shell tests: a private folder, checks that count failures, and the
# launcher's fixed paths kept aside and put back.
set -u
failures=0
tmp=$(mktemp -d /tmp/kestrun-kit.XXXXXX)
fixed_paths=(/var/tmp/Kestrun.log /tmp/qv_tmp_vantorel.mpkg /tmp/AutoSetup)

fail() { echo "FAIL: $*" >&2; failures=$((failures + 1)); }
expect() { # <description> <command...>: the command must succeed
  local what=$1; shift
  "$@" || fail "$what"
}

# A folder of links to every command on PATH but the ones named: a PATH without them.
path_without() { # <folder> <command...>
  local folder=$1 dir tool; shift
  mkdir -p "$folder"
  local IFS=:
  for dir in $PATH; do
    for tool in "$dir"/*; do
      case " $* " in *" ${tool##*/} "*) continue ;; esac
      [ -e "$folder/${tool##*/}" ] || ln -s "$tool" "$folder/${tool##*/}"
    done
  done
}

keep_fixed_paths() {
  mkdir -p "$tmp/kept"
  local i=0
  for path in "${fixed_paths[@]}"; do
    if [ -e "$path" ] || [ -L "$path" ]; then mv "$path" "$tmp/kept/$i"; fi
    i=$((i + 1))
  done
}
put_back_fixed_paths() {
  local i=0
  for path in "${fixed_paths[@]}"; do
    rm -rf "$path"
    if [ -e "$tmp/kept/$i" ] || [ -L "$tmp/kept/$i" ]; then mv "$tmp/kept/$i" "$path"; fi
    i=$((i + 1))
  done
}

finish() {
  [ ! -d "$tmp/kept" ] || put_back_fixed_paths
  chmod -R u+rwX "$tmp" 2>/dev/null
  rm -rf "$tmp"
  if [ "$failures" -ne 0 ]; then echo "$failures failure(s)" >&2; exit 1; fi
  echo "all passed"
}
trap finish EXIT
