#!/bin/sh
# SPDX-License-Identifier: MIT
# kpimage store through the installed tool in a scratch home: names that reach outside the documents folder are
# refused and touch nothing there, names into subfolders work, deletion reports what it removed, "--" ends the
# options and an empty --documents is refused. Usage: store.sh CMAKE BUILD_DIR WORK_DIR PICTURE.png
set -u
cmake=$1 build=$2 work=$3 picture=$4
. "$(dirname "$0")/install.sh"
docs=$home/Documents
mkdir -p "$docs/sub" "$home/outside"
cp "$picture" "$home/victim.png" && cp "$picture" "$home/outside/victim.png" || exit 1
ln -s "$home/outside" "$docs/out"
ln -s "$home/outside" "$docs/sub/deeper"
ln -s "$home/outside/victim.png" "$docs/leak.png"
outside_state() { find "$home" -path "$docs" -prune -o -printf '%p %s %T@\n' | sort; }
before=$(outside_state)
# Refused names touch nothing outside; a link inside pointing out is not read through, and deleting it removes the
# link only.
for name in ../victim sub/../../victim out/victim sub/deeper/victim /../victim "$home/outside/victim"; do
    runs <<'EOF2'
store save "$picture" "$name"|1|"saved":false|cannot save
store load "$name" "$work/loaded.png"|1|"found":false
store delete "$name" png|1|"removed":\[\]|nothing removed
EOF2
done
runs <<'EOF2'
store load leak|1|"found":false
store delete leak png|0|"removed":\["leak.png"\]
store save "$picture" sub/inner|0|"saved":true
store load sub/inner "$work/inner.png"|0|"found":true,"width":512,"height":512
store delete sub/inner png|0|"removed":\["sub/inner.png"\]
store save "$picture" -- --card|0|"name":"--card".*"saved":true
store save "$picture" second|0
store delete '*' png|0|"removed":\["--card.png","second.png"\]
store delete '*' png|1|"removed":\[\]|nothing removed
store load card --documents ""|1||--documents needs a folder
store save "$picture" card --documents "$home/elsewhere"|1|"saved":false
EOF2
[ "$(outside_state)" = "$before" ] || { echo "FAILED: a file outside the documents folder was touched" >&2; failed=1; }
[ ! -e "$work/loaded.png" ] || { echo "FAILED: a refused load wrote its output" >&2; failed=1; }
exit "$failed"
