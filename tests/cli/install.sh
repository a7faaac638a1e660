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
        timeout 20 "$work/prefix/bin/kpimage" "$@" >"$work/out" 2>"$work/err"
}
# check DESCRIPTION EXPECTED-STATUS [ERE-ON-STDOUT [ERE-ON-STDERR]]: the last kpimage run's status and output.
check() {
    status=$?
    ok=1
    [ "$status" -eq "$2" ] || ok=0
    if [ -n "${3:-}" ] && ! grep -Eq -- "$3" "$work/out"; then ok=0; fi
    if [ -n "${4:-}" ] && ! grep -Eq -- "$4" "$work/err"; then ok=0; fi
    if [ "$ok" -eq 0 ]; then
        echo "FAILED: $1 (exit $status, expected $2)" >&2
        echo "  stdout: $(cat "$work/out")" >&2
        echo "  stderr: $(cat "$work/err")" >&2
        failed=1
    fi
}
