#!/usr/bin/env bash
# Installs a build into a fresh prefix and runs the installed tool with
# LD_LIBRARY_PATH unset: it must find the installed library through its own
# run path, not through the build tree or the environment.
#
# usage: install_test.sh CMAKE BUILD_DIR BINDIR WORKDIR   (BINDIR relative to
# the prefix; WORKDIR is emptied first)
set -u
cmake=$1 build=$2 bindir=$3 work=$4
rm -rf "$work"
mkdir -p "$work"
cd "$work" || exit 1
prefix=$work/prefix
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-passive}

failures=0
pass() { echo "ok:   $1"; }
flunk() {
    echo "FAIL: $1"
    failures=$((failures + 1))
}
# run WHAT COMMAND...: COMMAND must succeed without LD_LIBRARY_PATH.
run() {
    local what=$1
    shift
    if env -u LD_LIBRARY_PATH "$@" >out.txt 2>err.txt; then pass "$what"; else
        flunk "$what: exit $?"
        sed 's/^/      /' out.txt err.txt
    fi
}

if env -u DESTDIR "$cmake" --install "$build" --prefix "$prefix" >install.txt 2>&1; then pass "cmake --install"; else
    flunk "cmake --install"
    sed 's/^/      /' install.txt
    exit 1
fi
tool=$prefix/$bindir/halden
run "the installed tool lists the devices" "$tool" devices
# ldd shows where the library was found: in the prefix.
if command -v ldd >/dev/null; then
    if env -u LD_LIBRARY_PATH ldd "$tool" | grep 'libHalden' | grep -q "=> $prefix/"; then
        pass "it loads the installed library"
    else
        flunk "it loads the installed library"
        env -u LD_LIBRARY_PATH ldd "$tool" | sed 's/^/      /'
    fi
fi
# A 16 x 16 grid of ones: blurred and median-filtered it stays ones.
printf '\x00\x00\x80\x3f%.0s' $(seq 256) >ones.raw
run "the installed tool blurs" "$tool" blur ones.raw blurred.raw --radius 2
if cmp -s blurred.raw ones.raw; then pass "the blur keeps a constant grid"; else flunk "the blur keeps a constant grid"; fi
run "the installed tool median-filters" "$tool" median ones.raw median.npy --quiet
if [ "$(wc -c <median.npy)" = $((128 + 256 * 4)) ]; then pass "it wrote the grid"; else flunk "it wrote the grid"; fi

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "all checks passed"
