#!/bin/sh
# SPDX-License-Identifier: MIT
# kpimage under faults, in a scratch home: Ctrl+C during a recording, full and read-only file systems, earlier
# runs' files in the output folder, FIFOs and missing files as --media. Usage: faults.sh KPIMAGE WORKDIR
# The file-system cases mount small tmpfs folders and run only as root (as CI does).
set -u
kpimage=$1 work=$2
rm -rf "$work" && mkdir -p "$work/home" || exit 1
export HOME="$work/home" XDG_CONFIG_HOME="$work/home/.config"
failed=0 mounts=""
trap 'for m in $mounts; do umount -l "$m" 2>/dev/null; done' EXIT
# run NAME ARGS...: kpimage ARGS with its output in NAME.out and NAME.err, its exit status in $status.
run() {
    name=$1 && shift
    timeout 60 "$kpimage" "$@" >"$work/$name.out" 2>"$work/$name.err"
    status=$?
}
# problem DESCRIPTION: a failure, shown with the last run's output.
problem() {
    echo "FAILED: $* (exit $status)" >&2 && failed=1
    for f in "$work/$name.out" "$work/$name.err"; do echo "--- $f" >&2 && cat "$f" >&2; done
}
# tmpfs NAME SIZE: a small file system at $work/NAME; fails when mounting is not possible here.
tmpfs() { mkdir -p "$work/$1" && mount -t tmpfs -o "size=$2" tmpfs "$work/$1" 2>/dev/null && mounts="$work/$1 $mounts"; }
# summary NAME stills|movie: the stills or the movie the summary line of a run names, one a line.
summary() {
    grep '^{"summary"' "$work/$1.out" | if [ "$2" = movie ]; then sed -n 's/.*"movie":"\([^"]*\)".*/\1/p'; else
        sed -e 's/.*"stills":\[\([^]]*\)\].*/\1/' -e 's/","/\n/g' -e 's/"//g'; fi
}

# Ctrl+C during capture --record: the run ends cleanly, the movie reaches the album and the summary is printed.
"$kpimage" capture --sample --seconds 60 --record --no-guidance --out "$work/interrupted" >"$work/int.out" 2>"$work/int.err" &
pid=$! name=int
for _ in $(seq 1 300); do grep -q '"time"' "$work/int.out" 2>/dev/null && break; sleep 0.1; done
sleep 1 && kill -INT "$pid"
wait "$pid"
status=$?
movie=$(summary int movie)
[ "$status" -eq 130 ] && [ -n "$movie" ] && "$kpimage" probe "$movie" | grep -q '"frames":[1-9]' || problem "Ctrl+C: '$movie'"

# A second run into the same folder keeps the first run's files: the movie and stills get new names.
mkdir -p "$work/again" && : >"$work/again/still-7.png" && cp "$movie" "$work/again/FrontCardData0.mov"
before=$(cksum "$work/again/FrontCardData0.mov")
run again capture --sample --seconds 2 --record --no-guidance --out "$work/again"
if [ "$status" -ne 0 ] || ! grep -q '"movie":"[^"]*/FrontCardData0-1\.mov"' "$work/again.out" ||
    [ "$(cksum "$work/again/FrontCardData0.mov")" != "$before" ] || [ -s "$work/again/still-7.png" ] ||
    grep -Eq '"stills":\[[^]]*still-[1-7]\.png' "$work/again.out"; then
    problem "a second run overwrote or misnamed files"
fi

# A missing file or a FIFO as --media is refused at once by both camera commands, which share the check.
mkfifo "$work/camera.fifo"
for command in capture record; do
    run media "$command" --media "$work/missing.mp4" --seconds 1
    [ "$status" -eq 1 ] && grep -q "no such file: $work/missing.mp4" "$work/media.err" || problem "$command MISSING"
    run media "$command" --media "$work/camera.fifo" --seconds 1
    [ "$status" -eq 1 ] && grep -q "not a regular file or a device" "$work/media.err" || problem "$command FIFO"
done

if [ "$(id -u)" -ne 0 ] || ! tmpfs probe 1m; then
    echo "skipped: the file-system cases need root and tmpfs mounts" >&2
    exit "$failed"
fi
# Full and read-only file systems: refused before the camera starts, with the cause.
tmpfs full 1m && dd if=/dev/zero of="$work/full/filler" bs=64k 2>/dev/null
run full capture --sample --seconds 2 --record --out "$work/full/out"
[ "$status" -eq 1 ] && grep -q "No space left on device" "$work/full.err" && ! grep -q summary "$work/full.out" ||
    problem "a full file system"
tmpfs readonly 1m && mkdir -p "$work/readonly/out" "$work/readonly/album" && mount -o remount,ro "$work/readonly"
run ro capture --sample --seconds 2 --record --no-guidance --out "$work/readonly/out"
[ "$status" -eq 1 ] && grep -q "Read-only file system" "$work/ro.err" && ! grep -q summary "$work/ro.out" ||
    problem "a read-only output folder"
run ro record --seconds 1 --album "$work/readonly/album"
[ "$status" -eq 1 ] && grep -q "photo album folder .*Read-only file system" "$work/ro.err" || problem "a read-only album"

# A file system that fills while recording: a non-zero exit, the writer's reason, and only files that exist named.
tmpfs small 3m
run small record --codec raw --preset 4 --seconds 3 --documents "$work/small/docs" --album "$work/small/album"
[ "$status" -eq 1 ] && grep -q "no space left" "$work/small.err" && [ ! -s "$work/small.out" ] ||
    problem "record on a file system that fills"
tmpfs small2 4m
run small2 capture --sample --seconds 4 --record --no-guidance --out "$work/small2/out"
for path in $(summary small2 stills) $(summary small2 movie); do
    [ -s "$path" ] || problem "the summary names $path, which does not exist"
done
lost="could not be|did not complete|did not reach|did not deliver"
if [ "$status" -ne 0 ]; then grep -Eq "$lost" "$work/small2.err"; else ! grep -Eq "$lost" "$work/small2.err"; fi ||
    problem "capture on a small file system: its exit and its errors disagree"
exit "$failed"
