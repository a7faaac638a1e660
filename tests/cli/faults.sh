#!/bin/sh
# SPDX-License-Identifier: MIT
# kpimage under faults, in a scratch home: Ctrl+C during a recording, full and read-only file systems, earlier
# runs' files in the output folder, FIFOs and missing files as --media. Usage: faults.sh KPIMAGE WORKDIR
# The file-system cases mount small tmpfs folders and run only as root (as CI does).
set -u
kpimage=$1 work=$2
rm -rf "$work" && mkdir -p "$work/home" || exit 1
export HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config"
failed=0
mounts=""
cleanup() {
    for m in $mounts; do umount -l "$m" 2>/dev/null; done
}
trap cleanup EXIT
problem() {
    echo "FAILED: $*" >&2
    failed=1
}
show() { # show NAME: the run's output, after a failure
    for f in "$work/$1.out" "$work/$1.err"; do [ -f "$f" ] && { echo "--- $f" >&2; cat "$f" >&2; }; done
}
now_ms() { echo $(($(date +%s%N) / 1000000)); }
# tmpfs NAME SIZE: a small file system at $work/NAME; fails when mounting is not possible here.
tmpfs() {
    mkdir -p "$work/$1" && mount -t tmpfs -o "size=$2" tmpfs "$work/$1" 2>/dev/null && mounts="$work/$1 $mounts"
}
# summary_paths FILE: the stills and the movie the summary line names, one a line.
summary_paths() {
    grep '^{"summary"' "$1" | sed -e 's/.*"stills":\[\([^]]*\)\].*/\1/' -e 's/","/\n/g' -e 's/"//g'
    grep '^{"summary"' "$1" | sed -n 's/.*"movie":"\([^"]*\)".*/\1/p'
}

# Ctrl+C during capture --record: the run ends cleanly, the movie reaches the album and the summary is printed.
"$kpimage" capture --sample --seconds 60 --record --no-guidance --out "$work/interrupted" \
    >"$work/int.out" 2>"$work/int.err" &
pid=$!
for _ in $(seq 1 300); do grep -q '"time"' "$work/int.out" 2>/dev/null && break; sleep 0.1; done
sleep 1
kill -INT "$pid"
wait "$pid"
status=$?
movie=$(sed -n 's/.*"movie":"\([^"]*\)".*/\1/p' "$work/int.out")
if [ "$status" -ne 130 ] || [ -z "$movie" ] || ! "$kpimage" probe "$movie" >"$work/probe.out" 2>&1 ||
    ! grep -q '"frames":[1-9]' "$work/probe.out"; then
    problem "Ctrl+C: exit $status, movie '$movie'"; show int; cat "$work/probe.out" >&2
fi

# A second run into the same folder keeps the first run's files: the movie and stills get new names.
mkdir -p "$work/again" && : >"$work/again/still-7.png" && cp "$movie" "$work/again/FrontCardData0.mov"
before=$(cksum "$work/again/FrontCardData0.mov")
"$kpimage" capture --sample --seconds 2 --record --no-guidance --out "$work/again" >"$work/again.out" 2>"$work/again.err"
status=$?
if [ "$status" -ne 0 ] || ! grep -q '"movie":"[^"]*/FrontCardData0-1\.mov"' "$work/again.out" ||
    [ "$(cksum "$work/again/FrontCardData0.mov")" != "$before" ] || [ -s "$work/again/still-7.png" ] ||
    grep -Eq '"stills":\[[^]]*still-[1-7]\.png' "$work/again.out"; then
    problem "a second run overwrote or misnamed files (exit $status)"; show again
fi

# A FIFO as --media is refused at once by the camera commands, which share the check (within a second of what the
# same command takes to refuse a missing file, which says so).
mkfifo "$work/camera.fifo"
for command in capture record; do
    start=$(now_ms)
    "$kpimage" "$command" --media "$work/missing.mp4" --seconds 1 >"$work/missing.out" 2>"$work/missing.err"
    status=$? baseline=$(($(now_ms) - start))
    if [ "$status" -ne 1 ] || ! grep -q "no such file: $work/missing.mp4" "$work/missing.err"; then
        problem "$command --media MISSING"; show missing
    fi
    start=$(now_ms)
    timeout 10 "$kpimage" "$command" --media "$work/camera.fifo" --seconds 1 >"$work/fifo.out" 2>"$work/fifo.err"
    status=$? took=$(($(now_ms) - start))
    if [ "$status" -ne 1 ] || [ "$took" -gt $((baseline + 1000)) ] ||
        ! grep -q "not a regular file or a device" "$work/fifo.err"; then
        problem "$command --media FIFO: exit $status after $took ms ($baseline ms for a missing file)"; show fifo
    fi
done

if [ "$(id -u)" -ne 0 ] || ! tmpfs probe 1m; then
    echo "skipped: the file-system cases need root and tmpfs mounts" >&2
    exit "$failed"
fi

# A full file system: refused before the camera starts, with the cause.
tmpfs full 1m
dd if=/dev/zero of="$work/full/filler" bs=64k 2>/dev/null
"$kpimage" capture --sample --seconds 2 --record --out "$work/full/out" >"$work/full.out" 2>"$work/full.err"
status=$?
if [ "$status" -ne 1 ] || ! grep -q "No space left on device" "$work/full.err" || grep -q summary "$work/full.out"; then
    problem "a full file system: exit $status"; show full
fi

# A file system that fills while recording: a non-zero exit, the writer's reason, and only files that exist named.
tmpfs small 3m
"$kpimage" record --codec raw --preset 4 --seconds 3 --documents "$work/small/docs" \
    --album "$work/small/album" >"$work/small.out" 2>"$work/small.err"
status=$?
if [ "$status" -ne 1 ] || ! grep -q "no space left" "$work/small.err" || [ -s "$work/small.out" ]; then
    problem "record on a file system that fills: exit $status"; show small
fi
tmpfs small2 4m
"$kpimage" capture --sample --seconds 4 --record --no-guidance --out "$work/small2/out" \
    >"$work/small2.out" 2>"$work/small2.err"
status=$?
for path in $(summary_paths "$work/small2.out"); do
    [ -s "$path" ] || problem "the summary names $path, which does not exist"
done
lost="could not be|did not complete|did not reach|did not deliver"
if { [ "$status" -ne 0 ] && ! grep -Eq "$lost" "$work/small2.err"; } ||
    { [ "$status" -eq 0 ] && grep -Eq "$lost" "$work/small2.err"; }; then
    problem "capture on a small file system: exit $status and its errors disagree"; show small2
fi

# Read-only folders: refused before the camera starts, naming the cause.
tmpfs readonly 1m
mkdir -p "$work/readonly/out" "$work/readonly/album" && mount -o remount,ro "$work/readonly"
"$kpimage" capture --sample --seconds 2 --record --no-guidance --out "$work/readonly/out" \
    >"$work/ro.out" 2>"$work/ro.err"
status=$?
if [ "$status" -ne 1 ] || ! grep -q "Read-only file system" "$work/ro.err" || grep -q summary "$work/ro.out"; then
    problem "a read-only output folder: exit $status"; show ro
fi
"$kpimage" record --seconds 1 --album "$work/readonly/album" >"$work/ro.out" 2>"$work/ro.err"
status=$?
if [ "$status" -ne 1 ] || ! grep -q "photo album folder .*Read-only file system" "$work/ro.err"; then
    problem "a read-only album: exit $status"; show ro
fi
exit "$failed"
