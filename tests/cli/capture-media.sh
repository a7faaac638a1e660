#!/bin/sh
# SPDX-License-Identifier: MIT
# kpimage capture on a webcam-like video: a real portrait photo, upright and then with the head tilted by 30
# degrees, beside an ID card whose PDF417 code zint printed, H.264 with sensor-like noise. The run must call the
# head centred (for seconds), take a still, report the tilt and print the card's text exactly. Only outcomes are checked, not
# when they happened: a loaded machine analyses fewer frames, and each pose lasts long enough for many.
# Usage: capture-media.sh KPIMAGE PHOTO WORKDIR
set -u
kpimage=$1 photo=$2 work=$3
rm -rf "$work" && mkdir -p "$work" || exit 1
command -v ffmpeg >/dev/null && command -v zint >/dev/null ||
    { echo "capture-media.sh: ffmpeg or zint is missing (scripts/setup installs them)" >&2; exit 1; }

# The card's data as the code holds it (\R is the record separator), and as kpimage prints it in JSON.
data='@\n\R\rANSI 636000090002DL00410185ZV02260008DLDAQK1234567\nDCSDOE\nDACJANE\nDBB01021990\nDAG1 MAIN STREET\nDAIANYTOWN\nDAJCA\r'
json='@\\n\\u001e\\rANSI 636000090002DL00410185ZV02260008DLDAQK1234567\\nDCSDOE\\nDACJANE\\nDBB01021990\\nDAG1 MAIN STREET\\nDAIANYTOWN\\nDAJCA\\r'
zint -b 55 --esc --cols=6 --scale=1.5 -o "$work/card.png" -d "$data" || exit 1

# Two scenes: the photo's upper part enlarged so the face is about 160 px wide and centred, upright and turned by
# 30 degrees about the face; the card tilted by 8 degrees at the lower right. Then 6 s of each as a 30 fps video,
# played (looping) for 18 s: every pose is seen for seconds even when the detectors start late on a loaded machine.
ffmpeg -hide_banner -loglevel error -y -f lavfi -i "color=c=0x7d8a94:s=1280x720:d=1" -i "$photo" -i "$work/card.png" \
    -filter_complex "[0]split[b0][b1];[1]crop=512:420:0:0,scale=742:609,split[h0][h1];\
[h1]rotate=30*PI/180:ow=hypot(iw\,ih):oh=ow:c=none[ht];\
[2]format=rgba,pad=iw+40:ih+40:20:20:white,rotate=-8*PI/180:ow=rotw(-8*PI/180):oh=roth(-8*PI/180):c=none,split[c0][c1];\
[b0][h0]overlay=314:179[u];[u][c0]overlay=700:440[up];[b1][ht]overlay=137:10[t0];[t0][c1]overlay=700:440[tilt]" \
    -map "[up]" -frames:v 1 "$work/upright.png" -map "[tilt]" -frames:v 1 "$work/tilted.png" || exit 1
ffmpeg -hide_banner -loglevel error -y -loop 1 -framerate 30 -t 6 -i "$work/upright.png" \
    -loop 1 -framerate 30 -t 6 -i "$work/tilted.png" \
    -filter_complex "[0][1]concat=n=2:v=1:a=0,noise=alls=4:allf=t,format=yuv420p" \
    -c:v libx264 -preset veryfast -crf 26 -g 30 "$work/webcam.mp4" || exit 1

"$kpimage" capture --media "$work/webcam.mp4" --seconds 18 --out "$work/out" --no-guidance --show-card-data \
    >"$work/stdout" 2>"$work/stderr"
status=$?
failed=0
expect() { # expect DESCRIPTION ERE
    grep -Eq -- "$2" "$work/stdout" || { echo "missing: $1" >&2 && failed=1; }
}
[ "$status" -eq 0 ] || { echo "kpimage capture exited with $status" >&2; failed=1; }
expect "the head centred and upright" \
    '^\{"time":[0-9.]+,"faceRect":\{[^}]*\},"yawAngle":0,"rollAngle":0,"isHeadCentered":true,'
expect "the still with the face" '^\{"time":[0-9.]+,"still":\{"file":"[^"]*/still-1\.png",.*"face":\{"found":true,'
expect "the head tilted by 30 degrees" '^\{"time":[0-9.]+,"faceRect":\{[^}]*\},"yawAngle":0,"rollAngle":(30|330),'
expect "the card's text, exactly" ",\"barcodeData\":\"$json\"\\}\$"
expect "the head centred for seconds" '"headCenteredSeconds":([2-9]|[1-9][0-9]+)\.[0-9]{3}\}\}$'
[ "$failed" -eq 0 ] || { echo "--- stdout" >&2; cat "$work/stdout" >&2; echo "--- stderr" >&2; cat "$work/stderr" >&2; }
exit "$failed"
