#!/bin/sh
# Writes one manual page, compressed: scdoc turns SOURCE into OUT, then gzip
# -n makes OUT.gz without the name and time in the archive, so the same
# source gives the same bytes, as a package wants. With --from GENERATOR the
# source is what `GENERATOR scdoc` prints, kept as OUT.scd.
#   page.sh SCDOC GZIP OUT SOURCE
#   page.sh SCDOC GZIP OUT --from GENERATOR
set -eu
scdoc=$1 gzip=$2 out=$3 src=$4
if [ "$src" = --from ]; then
  "$5" scdoc >"$out.scd"
  src=$out.scd
fi
"$scdoc" <"$src" >"$out"
"$gzip" -9nf "$out"
