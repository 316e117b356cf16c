#!/bin/sh
# utf16-strings.sh IN OUT: writes the string table IN as UTF-16 with a byte-order mark, the
# form Mac OS X 10.4 reads (the Linux layer reads it as well). A table already in UTF-16 is
# copied as it is; a UTF-8 one loses its own mark. Text that is not UTF-8 is refused.
set -eu
[ $# -eq 2 ] || { echo "usage: utf16-strings.sh IN OUT" >&2; exit 2; }
in=$1
out=$2
case "$(head -c 2 "$in" | od -An -tx1 | tr -d ' \n')" in
  fffe|feff) cp "$in" "$out.tmp.$$" ;;
  *)
    printf '\377\376' >"$out.tmp.$$"
    if ! LC_ALL=C sed '1s/^\xEF\xBB\xBF//' "$in" | iconv -f UTF-8 -t UTF-16LE >>"$out.tmp.$$"; then
      rm -f "$out.tmp.$$"
      echo "$in: not UTF-8 text; a string table is UTF-8, or UTF-16 with a byte-order mark" >&2
      exit 1
    fi ;;
esac
mv -f "$out.tmp.$$" "$out"
