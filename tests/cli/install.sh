#!/bin/sh
# SPDX-License-Identifier: MIT
# Sourced by the command-line tests: installs the built package into WORK/prefix and defines `kpimage`, which runs
# the installed tool with a scratch home WORK/home and nothing else from the environment (sanitizer options kept).
# Needs: cmake build work.
rm -rf "$work" && mkdir -p "$work/home/Documents" || exit 1
"$cmake" --install "$build" --prefix "$work/prefix" >"$work/install.log" 2>&1 || { cat "$work/install.log" >&2; exit 1; }
home=$work/home
failed=0
kpimage() {
    env -i HOME="$home" PATH=/usr/bin:/bin ${ASAN_OPTIONS:+ASAN_OPTIONS=$ASAN_OPTIONS} \
        ${LSAN_OPTIONS:+LSAN_OPTIONS=$LSAN_OPTIONS} ${UBSAN_OPTIONS:+UBSAN_OPTIONS=$UBSAN_OPTIONS} \
        timeout 20 "$work/prefix/bin/kpimage" "$@" >"$work/out" 2>"$work/err" </dev/null
}
# check DESCRIPTION EXPECTED-STATUS [ERE-ON-STDOUT [ERE-ON-STDERR]]: the last kpimage run's status and output.
check() {
    status=$?
    if [ "$status" -ne "$2" ] || { [ -n "${3:-}" ] && ! grep -Eq -- "$3" "$work/out"; } ||
        { [ -n "${4:-}" ] && ! grep -Eq -- "$4" "$work/err"; }; then
        printf 'FAILED: %s (exit %s, expected %s)\n  stdout: %s\n  stderr: %s\n' "$1" "$status" "$2" "$(cat "$work/out")" \
            "$(cat "$work/err")" >&2
        failed=1
    fi
}
# runs: kpimage with each line of standard input, "ARGUMENTS|EXPECTED-STATUS|ERE-ON-STDOUT|ERE-ON-STDERR".
runs() {
    while IFS='|' read -r args code out err; do
        eval "kpimage $args"
        check "$args" "$code" "$out" "$err"
    done
}
