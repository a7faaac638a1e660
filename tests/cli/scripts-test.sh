#!/bin/sh
# SPDX-License-Identifier: MIT
# scripts/test with cmake and ctest replaced by recorders: every configuration it runs turns the tests on (a build
# folder that scripts/run configured without tests must not be reused as it is), and every ctest run fails when it
# finds no tests. Usage: scripts-test.sh SOURCE_DIR WORKDIR
set -u
src=$1 work=$2
rm -rf "$work" && mkdir -p "$work/root/scripts" "$work/bin" || exit 1
cp "$src/scripts/test" "$work/root/scripts/test"
printf '#!/bin/sh\nexit 0\n' >"$work/root/scripts/setup"
for tool in cmake ctest; do
    printf '#!/bin/sh\necho "%s $*" >>"%s/calls"\n' "$tool" "$work" >"$work/bin/$tool"
done
chmod +x "$work/root/scripts/setup" "$work/bin/cmake" "$work/bin/ctest"
PATH="$work/bin:$PATH" "$work/root/scripts/test" >"$work/stdout" 2>&1 || { cat "$work/stdout" >&2; exit 1; }
failed=0
for preset in asan tsan default; do
    grep -Eq -- "^cmake --preset $preset .*-DKPIMAGE_BUILD_TESTS=ON" "$work/calls" ||
        { echo "the $preset configuration does not turn the tests on" >&2; failed=1; }
    grep -Eq -- "^ctest --preset $preset .*--no-tests=error" "$work/calls" ||
        { echo "the $preset tests pass when none are found" >&2; failed=1; }
done
exit $failed
