#!/bin/sh
# SPDX-License-Identifier: MIT
# kpimage card on pictures of card PDF417 codes made by zint (made-up people): a U.S. card, a Canadian card whose
# subfile offset is stated wrong, a version-1 card and a QR code that is not a card; then the redacted form.
# Usage: card.sh KPIMAGE WORKDIR. Exits 77 (skipped) without zint.
set -u
kpimage=$1 work=$2
command -v zint >/dev/null || { echo "zint is not installed" >&2; exit 77; }
rm -rf "$work" && mkdir -p "$work" || exit 1
pdf417() { zint -b 55 --esc --scale 2 --whitesp=4 --vwhitesp=4 -o "$work/$1.png" -d "$2" >/dev/null || exit 1; }
pdf417 us '@\n\R\rANSI 636014100302DL00410218ZC02590007DLDCAC\nDCBNONE\nDCDNONE\nDBA08152029\nDCSRIVERA\nDACELENA\nDADMARIA\nDBD08152024\nDBB08151999\nDBC2\nDAYHAZ\nDAU065 in\nDAG400 OAK AVE\nDAISACRAMENTO\nDAJCA\nDAK958140000\nDAQD1234567\nDCF08/15/2024612AB/CDFD/29\nDCGUSA\nDDEN\nDDFN\nDDGN\rZCZCAX\r'
pdf417 ca '@\n\R\rANSI 636028080301DL00300192DLDCA5\nDCBNONE\nDCDNONE\nDBA20300101\nDCSNGUYEN\nDACAN\nDADNONE\nDBD20250101\nDBB19850101\nDBC1\nDAYBRO\nDAU180 cm\nDAG12 MAIN ST\nDAIVANCOUVER\nDAJBC\nDAKV6B 1A1\nDAQ7654321\nDCFABC123\nDCGCAN\nDDEN\nDDFN\nDDGN\r'
pdf417 v1 '@\n\R\rANSI 6360200101DL00290149DLDAAPUBLIC,JOHN,QUINCY\nDAG12 ELM ST\nDAIDENVER\nDAJCO\nDAK80202     \nDAQ123456789\nDARC\nDASNONE\nDATNONE\nDBA20280115\nDBB19700301\nDBCM\nDBD20200115\nDAU510\r'
zint -b 58 --scale 4 --whitesp=4 --vwhitesp=4 -o "$work/qr.png" -d 'https://example.com/card' >/dev/null || exit 1
"$kpimage" card "$work/us.png" "$work/ca.png" "$work/v1.png" "$work/qr.png" --today 2026-11-25 >"$work/full" &&
    "$kpimage" card "$work/us.png" --redact --today 2026-11-25 >"$work/redacted" || exit 1
failed=0
# Each line of standard input, "DESCRIPTION|FILE|ERE", names a line that FILE must have.
while IFS='|' read -r description file ere; do
    grep -Eq -- "$ere" "$work/$file" || { echo "missing: $description" >&2 && failed=1; }
done <<'EOF'
the U.S. card|full|^\{"file":"[^"]*/us\.png","isCard":true,"version":10,"issuer":"636014","fields":\{"familyName":"RIVERA","firstName":"ELENA","middleName":"MARIA","dateOfBirth":"1999-08-15","issueDate":"2024-08-15","expiryDate":"2029-08-15","documentNumber":"D1234567","sex":"female","eyeColor":"HAZ","height":"65 in","street":"400 OAK AVE","city":"SACRAMENTO","jurisdiction":"CA","postalCode":"958140000","country":"USA","documentDiscriminator":"08/15/2024612AB/CDFD/29"\},"expired":false,"age":27,"problems":\[\]\}$
the Canadian card, year-first dates, found by its marker|full|^\{"file":"[^"]*/ca\.png","isCard":true,"version":8,"issuer":"636028",.*"dateOfBirth":"1985-01-01","issueDate":"2025-01-01","expiryDate":"2030-01-01","documentNumber":"7654321",.*"height":"180 cm",.*"age":41,"problems":\["subfile DL is not at its stated offset"\]\}$
the version-1 card|full|^\{"file":"[^"]*/v1\.png","isCard":true,"version":1,"issuer":"636020","fields":\{"familyName":"PUBLIC","firstName":"JOHN","middleName":"QUINCY","fullName":"PUBLIC,JOHN,QUINCY","dateOfBirth":"1970-03-01",.*"height":"70 in",.*"expired":false,"age":56,"problems":\[\]\}$
the QR code as it is|full|^\{"file":"[^"]*/qr\.png","isCard":false,.*"problems":\[\],"text":"https://example.com/card"\}$
the redacted card|redacted|^\{"file":"[^"]*/us\.png","isCard":true,"version":10,"issuer":"636014","fields":\{"familyName":"R\.","firstName":"E\.","middleName":"M\.","dateOfBirth":"1999","issueDate":"2024-08-15","expiryDate":"2029-08-15","documentNumber":"\*\*\*567","sex":"female","eyeColor":"HAZ","height":"65 in","city":"SACRAMENTO","jurisdiction":"CA","country":"USA"\},"expired":false,"age":27,"problems":\[\]\}$
EOF
[ "$failed" -eq 0 ] || { echo "--- full" >&2; cat "$work/full" >&2; echo "--- redacted" >&2; cat "$work/redacted" >&2; }
exit "$failed"
