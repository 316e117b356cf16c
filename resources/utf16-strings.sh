#!/bin/sh
# utf16-strings.sh IN OUT: writes the string table IN as UTF-16 with a byte-order mark, the
# form Mac OS X 10.4 reads (the Linux layer reads it as well). A table already in UTF-16 is
# copied as it is; a UTF-8 one loses its own mark; other bytes are read as Mac Roman, as the
# layer reads an older table.
set -eu
[ $# -eq 2 ] || { echo "usage: utf16-strings.sh IN OUT" >&2; exit 2; }
in=$1
out=$2
[ -f "$in" ] && [ -r "$in" ] || { echo "$in: cannot be read" >&2; exit 1; }
case "$(head -c 2 "$in" | od -An -tx1 | tr -d ' \n')" in
  fffe|feff) cp "$in" "$out.tmp.$$" ;;
  *)
    printf '\377\376' >"$out.tmp.$$"
    if ! LC_ALL=C sed '1s/^\xEF\xBB\xBF//' "$in" | iconv -f UTF-8 -t UTF-16LE >>"$out.tmp.$$" 2>/dev/null; then
      printf '\377\376' >"$out.tmp.$$"
      iconv -f MACINTOSH -t UTF-16LE "$in" >>"$out.tmp.$$"
    fi ;;
esac
mv -f "$out.tmp.$$" "$out"
