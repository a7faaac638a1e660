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
outside_state() { find "$home" -path "$docs" -prune -o -printf '%p %s %T@\n' | sort; }
before=$(outside_state)

for name in ../victim sub/../../victim out/victim sub/deeper/victim /../victim "$home/outside/victim"; do
    kpimage store save "$picture" "$name"
    check "save $name is refused" 1 '"saved":false' 'cannot save'
    kpimage store load "$name" "$work/loaded.png"
    check "load $name is refused" 1 '"found":false'
    kpimage store delete "$name" png
    check "delete $name removes nothing" 1 '"removed":\[\]' 'nothing removed'
    [ "$(outside_state)" = "$before" ] || { echo "FAILED: $name touched a file outside the documents folder" >&2; failed=1; }
done
[ ! -e "$work/loaded.png" ] || { echo "FAILED: a refused load wrote its output" >&2; failed=1; }

# A link inside pointing out is not read through; deleting it removes the link only.
ln -s "$home/outside/victim.png" "$docs/leak.png"
kpimage store load leak
check "load through a link pointing outside is refused" 1 '"found":false'
kpimage store delete leak png
check "delete removes the link itself" 0 '"removed":\["leak.png"\]'
[ "$(outside_state)" = "$before" ] || { echo "FAILED: the link's target was touched" >&2; failed=1; }

# Subfolders, wildcards, "--" and an empty --documents.
kpimage store save "$picture" sub/inner
check "save into an existing subfolder" 0 '"saved":true'
kpimage store load sub/inner "$work/inner.png"
check "load from a subfolder" 0 '"found":true,"width":512,"height":512'
kpimage store delete sub/inner png
check "delete in a subfolder" 0 '"removed":\["sub/inner.png"\]'
kpimage store save "$picture" -- --card
check "-- ends the options" 0 '"name":"--card".*"saved":true'
kpimage store save "$picture" second
kpimage store delete '*' png
check "the wildcard lists what it removed" 0 '"removed":\["--card.png","second.png"\]'
kpimage store delete '*' png
check "nothing left to remove" 1 '"removed":\[\]' 'nothing removed'
kpimage store load card --documents ""
check "an empty --documents is refused" 1 '' '--documents needs a folder'
kpimage store save "$picture" card --documents "$home/elsewhere"
check "a missing documents folder" 1 '"saved":false'
exit "$failed"
