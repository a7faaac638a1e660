#!/bin/sh
# SPDX-License-Identifier: MIT
# Pictures that cannot be read, through the installed tool: each is refused at once (the run is bounded) with a
# message saying why; progressive and interlaced files are read. Usage: pictures.sh CMAKE BUILD_DIR WORK_DIR DATA_DIR
set -u
cmake=$1 build=$2 work=$3 data=$4
. "$(dirname "$0")/install.sh"
pics=$work/pictures
mkdir -p "$pics/folder.png" && mkfifo "$pics/pipe.png" || exit 1
size=$(wc -c <"$data/progressive.jpg")
for percent in 1 30 60 99; do
    head -c $((size * percent / 100)) "$data/progressive.jpg" >"$pics/cut$percent.jpg"
    kpimage analyze "$pics/cut$percent.jpg"
    check "a JPEG cut at $percent %" 1 '' "cannot read an image from .*/cut$percent.jpg: truncated"
done
size=$(wc -c <"$data/interlaced.png")
head -c $((size / 2)) "$data/interlaced.png" >"$pics/cut.png"
kpimage analyze "$pics/cut.png"
check "a PNG cut in half" 1 '' 'cut.png: truncated'
kpimage analyze "$data/forged.jpg"
check "a JPEG claiming 16000 x 16000" 1 '' 'forged.jpg: claims 16000 x 16000 pixels but holds only [0-9]+ bytes'
kpimage analyze "$data/forged.png"
check "a PNG claiming 30000 x 30000" 1 '' 'forged.png: claims 30000 x 30000 pixels but holds only 110 bytes'
kpimage focus "$data/cmyk.jpg"
check "a CMYK JPEG" 1 '' 'cmyk.jpg: CMYK JPEG pictures are not supported'
kpimage store save "$pics/missing.png" x
check "a missing file" 1 '' 'missing.png: no such file$'
kpimage faces "$pics/folder.png"
check "a directory" 1 '' 'folder.png: is a directory$'
kpimage analyze "$pics/pipe.png"
check "a FIFO" 1 '' 'pipe.png: not a regular file'
kpimage analyze "$data/progressive.jpg" "$data/interlaced.png"
check "progressive and interlaced files" 0 '"width":96,"height":64.*' ''
[ "$(grep -c '"width":96,"height":64' "$work/out")" -eq 2 ] || { echo "FAILED: both pictures read" >&2; failed=1; }
exit "$failed"
