#!/bin/sh
# SPDX-License-Identifier: MIT
# scripts/test with cmake and ctest replaced by recorders: every configuration it runs turns the tests on (a build
# folder that scripts/run configured without tests must not be reused as it is), every ctest run fails when it
# finds no tests, and only `quick` leaves the slow tests out. Usage: scripts-test.sh SOURCE_DIR WORKDIR
set -u
src=$1 work=$2
rm -rf "$work" && mkdir -p "$work/root/scripts" "$work/bin" || exit 1
cp "$src/scripts/test" "$work/root/scripts/test"
printf '#!/bin/sh\nexit 0\n' >"$work/root/scripts/setup"
for tool in cmake ctest; do
    printf '#!/bin/sh\necho "%s $*" >>"%s/calls-$STAGES"\n' "$tool" "$work" >"$work/bin/$tool"
done
chmod +x "$work/root/scripts/setup" "$work/bin/cmake" "$work/bin/ctest"
for stages in "" quick; do
    STAGES=$stages PATH="$work/bin:$PATH" "$work/root/scripts/test" $stages >"$work/stdout" 2>&1 ||
        { cat "$work/stdout" >&2; exit 1; }
done
failed=0
# Arguments of scripts/test (none: the full run), a configuration it must run, what that ctest run must also have.
while read -r stages preset extra; do
    [ "$stages" = - ] && stages=
    grep -Eq -- "^cmake --preset $preset .*-DKPIMAGE_BUILD_TESTS=ON" "$work/calls-$stages" ||
        { echo "scripts/test $stages: the $preset configuration does not turn the tests on" >&2; failed=1; }
    grep -Eq -- "^ctest --preset $preset .*--no-tests=error.*$extra" "$work/calls-$stages" ||
        { echo "scripts/test $stages: the $preset ctest run lacks --no-tests=error $extra" >&2; failed=1; }
done <<EOF2
- asan
- tsan
- default
quick default -LE slow
EOF2
grep -q -- "-LE slow" "$work/calls-" && { echo "scripts/test leaves slow tests out" >&2; failed=1; }
exit $failed
