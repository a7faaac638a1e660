#!/bin/sh
# SPDX-License-Identifier: MIT
# kpimage capture on the sample camera: the detection lines, a still with its preview, the card's text and the
# summary, the card redacted. Usage: capture.sh KPIMAGE WORKDIR SECONDS [format-only]
# format-only (for sanitizer builds, whose detectors are too slow for the real-time scene): the run ends well and its
# lines are well formed.
set -u
kpimage=$1 work=$2 seconds=$3 mode=${4:-full}
rm -rf "$work" && mkdir -p "$work" || exit 1
"$kpimage" capture --sample --seconds "$seconds" --out "$work/out" >"$work/stdout" 2>"$work/stderr"
status=$?
failed=0
# expect: each line of standard input, "DESCRIPTION|FILE|ERE", names a line that FILE must have.
expect() {
    while IFS='|' read -r description file ere; do
        LC_ALL=C grep -Eq -- "$ere" "$work/$file" || { echo "missing: $description" >&2 && failed=1; }
    done
}
[ "$status" -eq 0 ] || { echo "kpimage capture exited with $status" >&2; failed=1; }
expect <<'EOF'
the first state line|stdout|^\{"time":[0-9]+\.[0-9]{3},"faceRect":(null|\{"x":-?[0-9]+,"y":-?[0-9]+,"width":[0-9]+,"height":[0-9]+\}),"yawAngle":[0-9]+,"rollAngle":[0-9]+,"isHeadCentered":(true|false),"barcodeData":"[^"]*"\}$
the summary|stdout|^\{"summary":\{"camera":"sample:front","seconds":[0-9]+\.[0-9]{3},"frames":[1-9][0-9]*,"stills":\[[^]]*\],"barcodeData":"[^"]*","card":(null|\{.*\}),"headCenteredSeconds":[0-9]+\.[0-9]{3}\}\}$
EOF
# Without --show-card-data no line holds the card's raw text or an unredacted name, number, birth date or street.
# The card's QR code is not card data and is printed as it is, so its text is taken out before looking.
if sed 's/KPIMAGE SAMPLE CARD T64235789//g' "$work/stdout" "$work/stderr" |
    grep -E 'ANSI 636|SAMPLE|MICHAEL|T64235789|1986-06-06|06061986|WEST BROAD|232690000' >&2; then
    echo "card data shown without --show-card-data" >&2 && failed=1
fi
[ "$mode" = format-only ] || expect <<'EOF'
a line with the head centred and upright|stdout|^\{"time":[0-9]+\.[0-9]{3},"faceRect":\{"x":[0-9]+,"y":[0-9]+,"width":[1-9][0-9]*,"height":[1-9][0-9]*\},"yawAngle":0,"rollAngle":0,"isHeadCentered":true,"barcodeData":
a line without a face or with the head not centred|stdout|^\{"time":[0-9]+\.[0-9]{3},"faceRect":(null|\{[^}]*\}),"yawAngle":[0-9]+,"rollAngle":[0-9]+,"isHeadCentered":false,
the still's line|stdout|^\{"time":[0-9]+\.[0-9]{3},"still":\{"file":"[^"]*/still-1\.png","preview":"[^"]*/still-1-preview\.png","width":[1-9][0-9]*,"height":[1-9][0-9]*,"focus":[0-9]+,"focusScore":[0-9]+,"brightness":[1-9][0-9]*,"face":\{"found":true,
the redacted card|stdout|^\{"time":[0-9]+\.[0-9]{3},"card":\{"isCard":true,"version":9,"issuer":"636000","fields":\{"familyName":"S\.","firstName":"M\.",.*"dateOfBirth":"1986",.*"documentNumber":"\*\*\*789",
the summary with the still and the card|stdout|^\{"summary":\{"camera":"sample:front","seconds":[0-9]+\.[0-9]{3},"frames":[1-9][0-9]*,"stills":\["[^"]*/still-1\.png"(,"[^"]*/still-[0-9]+\.png")*\],"barcodeData":"\(card data hidden\)","card":\{"isCard":true,[^}]*"fields":\{[^}]*"documentNumber":"\*\*\*789"[^}]*\},"expired":false,"age":[0-9]+,[^}]*\},"headCenteredSeconds":([1-9][0-9]*\.[0-9]{3}|0\.[0-9]*[1-9][0-9]*)\}\}$
the guidance|stderr|^hold still$
the card's holder, redacted|stderr|^card read: M\. S\., number \*\*\*789$
the still as a PNG|out/still-1.png|^.PNG
the still's preview as a PNG|out/still-1-preview.png|^.PNG
EOF
[ "$failed" -eq 0 ] || { echo "--- stdout" >&2; cat "$work/stdout" >&2; echo "--- stderr" >&2; cat "$work/stderr" >&2; }
exit "$failed"
