#!/bin/sh
# SPDX-License-Identifier: MIT
# Pictures that cannot be read, through the installed tool: each is refused at once (the run is bounded) with a
# message saying why; progressive and interlaced files are read. Usage: pictures.sh CMAKE BUILD_DIR WORK_DIR DATA_DIR
set -u
cmake=$1 build=$2 work=$3 data=$4
. "$(dirname "$0")/install.sh"
pics=$work/pictures
mkdir -p "$pics/folder.png" && mkfifo "$pics/pipe.png" || exit 1
head -c $(($(wc -c <"$data/progressive.jpg") * 3 / 5)) "$data/progressive.jpg" >"$pics/cut.jpg"
head -c $(($(wc -c <"$data/interlaced.png") / 2)) "$data/interlaced.png" >"$pics/cut.png"
runs <<'EOF2'
analyze "$pics/cut.jpg"|1||cut.jpg: truncated
focus "$pics/cut.png"|1||cut.png: truncated
analyze "$data/forged.jpg"|1||forged.jpg: claims 16000 x 16000 pixels but holds only [0-9]+ bytes
analyze "$data/forged.png"|1||forged.png: claims 30000 x 30000 pixels but holds only 110 bytes
focus "$data/cmyk.jpg"|1||cmyk.jpg: CMYK JPEG pictures are not supported
store save "$pics/missing.png" x|1||missing.png: no such file$
faces "$pics/folder.png"|1||folder.png: is a directory$
analyze "$pics/pipe.png"|1||pipe.png: not a regular file
analyze "$data/progressive.jpg" "$data/interlaced.png"|0|"width":96,"height":64.*
EOF2
[ "$(grep -c '"width":96,"height":64' "$work/out")" -eq 2 ] || { echo "FAILED: both pictures read" >&2; failed=1; }
exit "$failed"
