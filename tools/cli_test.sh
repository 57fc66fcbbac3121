#!/usr/bin/env bash
# Runs the halden tool's commands on small grids and checks their results and
# exit codes. Needs bash and coreutils; python3, when present, adds checks of
# output values, and /proc, when present, a Ctrl-C check.
#
# usage: cli_test.sh HALDEN WORKDIR   (WORKDIR is emptied first)
#
# Exit codes checked: 1 for usage errors, 2 for unreadable files and grids of
# the wrong shape (a mask whose size differs from IN's included, as it is a
# bad size like any other, a non-square grid to blur or to shade with shadows
# or sky visibility, and a malformed mesh file), 3 for device and library
# failures.
set -u
# Absolute, as the checks run inside WORKDIR.
halden=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
work=$2
rm -rf "$work"
mkdir -p "$work"
cd "$work" || exit 1
# The runs are tiny and ctest may run other tests beside this one: spinning
# OpenMP threads on busy cores would make each call many times slower.
export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-passive}

failures=0
pass() { echo "ok:   $1"; }
flunk() {
    echo "FAIL: $1"
    failures=$((failures + 1))
}

# expect STATUS WHAT COMMAND...: runs COMMAND (stdout to out.txt, stderr to
# err.txt) and checks its exit status.
expect() {
    local want=$1 what=$2
    shift 2
    "$@" >out.txt 2>err.txt
    local got=$?
    if [ "$got" = "$want" ]; then
        pass "$what"
    else
        flunk "$what: exit $got, expected $want"
        sed 's/^/      /' out.txt err.txt
    fi
}

# check WHAT COMMAND...: passes when COMMAND succeeds.
check() {
    local what=$1
    shift
    if "$@" >/dev/null 2>&1; then pass "$what"; else flunk "$what"; fi
}

bytes() { wc -c <"$1" | tr -d ' '; }

# floats HEX_LE COUNT FILE: COUNT copies of one float32 given as escaped bytes.
floats() { printf "$1%.0s" $(seq "$2") >"$3"; }

# --- devices ------------------------------------------------------------------
expect 0 "devices" "$halden" devices
check "devices names the cpu key" grep -q '"cpu"' out.txt
expect 0 "devices --json" "$halden" devices --json
check "devices --json prints an array" grep -q '^\[{"name": ' out.txt
expect 1 "devices rejects arguments" "$halden" devices extra

# --- demo, which also makes the inputs below ---------------------------------------
expect 0 "demo --size 64 --out demo" "$halden" demo --size 64 --out demo
check "demo wrote terrain.npy" test -s demo/terrain.npy
check "demo wrote median.npy" test -s demo/median.npy
check "demo wrote thermal.npy" test -s demo/thermal.npy
check "demo wrote flow.npy" test -s demo/flow.npy
check "demo reports the thermal shaper" grep -q '^thermal shaper' out.txt
check "demo reports the flow simulation" grep -q '^flow simulation, length 0.5, accumulation 1, seed 1$' out.txt
check "demo wrote shaded.png" test -s demo/shaded.png
check "demo reports the shading" \
    grep -q '^shading, sun 225/35, 7 sun samples, 32 sky directions (traced), 10000 m wide (heights in m)$' out.txt
cells=$((64 * 64))
# The demo's .npy header is padded to a multiple of 64 bytes; the data follows.
tail -c $((cells * 4)) demo/terrain.npy >terrain.raw

# --- median --------------------------------------------------------------------
expect 0 "median on .npy" "$halden" median demo/terrain.npy median.npy --radius 3 --iterations 2
check "median matches the demo's result" cmp median.npy demo/median.npy
check "median prints its size" grep -q '^median 64x64, radius 3, 2 iteration(s) on ' out.txt
expect 0 "median on raw, side inferred" "$halden" median terrain.raw median.raw --radius 3 --iterations 2 --quiet
check "median --quiet prints nothing" test ! -s out.txt
check "raw median output is the .npy one's data" cmp median.raw <(tail -c $((cells * 4)) median.npy)
expect 0 "median --json" "$halden" median demo/terrain.npy median.npy --json
check "median --json fields" grep -q '^{"operation": "median", "device": ".*", "size": 64, "milliseconds": ' out.txt
expect 2 "median of a non-square raw grid" "$halden" median terrain.raw out.raw --size 128
check "median names the shape" grep -q 'square grid, this one is 128x32' err.txt
check "median wrote nothing on failure" test ! -e out.raw
expect 1 "median --radius 9" "$halden" median demo/terrain.npy out.npy --radius 9

# --- thermal-shape ---------------------------------------------------------------
expect 0 "thermal-shape, defaults" "$halden" thermal-shape demo/terrain.npy shaped.npy
check "thermal-shape prints size and parameters" \
    grep -q '^thermal-shape 64x64, amount -0.5, strength 1 on .*: .* ms, .* Mcells/s$' out.txt
check "thermal-shape changed the heights" eval '! cmp -s shaped.npy demo/terrain.npy'
check "thermal-shape kept the .npy size" test "$(bytes shaped.npy)" = "$(bytes demo/terrain.npy)"
expect 0 "thermal-shape with the demo's extent" "$halden" thermal-shape demo/terrain.npy demo-like.npy --extent 10000
check "thermal-shape matches the demo's result" cmp demo-like.npy demo/thermal.npy
expect 0 "thermal-shape --strength 0" "$halden" thermal-shape demo/terrain.npy same.npy --strength 0 --amount 0.5
check "strength 0 returns the input bit for bit" cmp same.npy demo/terrain.npy
expect 0 "thermal-shape, every option" "$halden" thermal-shape demo/terrain.npy all.npy --amount=0.25 \
    --strength 1.5 --height-scale 2 --extent 1e3 --level-factor 0.25 --device cpu --size 64 --quiet
check "thermal-shape --quiet prints nothing" test ! -s out.txt
expect 0 "thermal-shape --json" "$halden" thermal-shape demo/terrain.npy shaped.npy --json
check "thermal-shape --json fields" \
    grep -q '^{"operation": "thermal-shape", "device": ".*", "width": 64, "height": 64, "milliseconds": ' out.txt

# Masks: raw float32 in rows of IN's width, or .npy.
floats '\x00\x00\x80\x3f' "$cells" ones.raw  # 1.0f
head -c $((cells * 4)) /dev/zero >zeros.raw
expect 0 "thermal-shape --mask (raw, all 1)" "$halden" thermal-shape demo/terrain.npy masked1.npy --mask ones.raw
expect 0 "thermal-shape --mask (raw, all 0)" "$halden" thermal-shape demo/terrain.npy masked0.npy --mask zeros.raw
check "a zero mask changes the result" eval '! cmp -s masked0.npy shaped.npy'
if command -v python3 >/dev/null; then
    # A zero mask stops all lowering; only pits may still rise. The margin
    # allows for rounding in the pyramid's round trip.
    check "a zero mask lowers no cell" python3 - demo/terrain.npy masked0.npy <<'EOF'
import array, sys
def load(path):
    data = open(path, "rb").read()
    values = array.array("f")
    values.frombytes(data[10 + (data[8] | data[9] << 8):])
    return values
before, after = load(sys.argv[1]), load(sys.argv[2])
sys.exit(0 if len(before) == len(after) and all(a >= b - 1e-3 for b, a in zip(before, after)) else 1)
EOF
else
    echo "skip: a zero mask lowers no cell (no python3)"
fi
# Strength 0 copies its input, so it turns the raw mask into a .npy one.
expect 0 "thermal-shape makes a .npy mask" "$halden" thermal-shape ones.raw ones.npy --strength 0
expect 0 "thermal-shape --mask (.npy, all 1)" "$halden" thermal-shape demo/terrain.npy masked.npy --mask ones.npy
check "a .npy mask acts as the raw one" cmp masked.npy masked1.npy

# Non-square raw input: 4096 floats as 32 rows of 128.
expect 0 "thermal-shape of a 128x32 raw grid" "$halden" thermal-shape terrain.raw wide.raw --size 128
check "thermal-shape reports 128x32" grep -q '^thermal-shape 128x32,' out.txt
check "thermal-shape kept the raw size" test "$(bytes wide.raw)" = $((cells * 4))
expect 0 "thermal-shape of a 128x32 raw grid with a raw mask" \
    "$halden" thermal-shape terrain.raw wide-masked.raw --size 128 --mask ones.raw
expect 0 "thermal-shape of a 128x32 raw grid to .npy" "$halden" thermal-shape terrain.raw wide.npy --size 128 --json
check "thermal-shape --json of 128x32" grep -q '"width": 128, "height": 32,' out.txt
expect 0 "thermal-shape reads the 128x32 .npy back" "$halden" thermal-shape wide.npy wide2.npy
check "the .npy keeps its shape" grep -q '^thermal-shape 128x32,' out.txt
expect 2 "median of a non-square .npy" "$halden" median wide.npy out.npy

# Mismatched masks exit 2, like any other bad size.
head -c $((100 * 4)) /dev/zero >short.raw
expect 2 "a raw mask that is not whole rows" "$halden" thermal-shape demo/terrain.npy out.npy --mask short.raw
head -c $((64 * 32 * 4)) /dev/zero >half.raw
expect 2 "a raw mask of 64x32 for 64x64" "$halden" thermal-shape demo/terrain.npy out.npy --mask half.raw
check "the mismatch is named" grep -q 'the mask is 64x32, but demo/terrain.npy is 64x64' err.txt
expect 2 "a .npy mask of 128x32 for 64x64" "$halden" thermal-shape demo/terrain.npy out.npy --mask wide.npy
expect 2 "a missing mask" "$halden" thermal-shape demo/terrain.npy out.npy --mask no-such-mask.raw
check "nothing written after mask errors" test ! -e out.npy

# Size errors.
head -c $((2048 * 4)) /dev/zero >odd.raw
expect 2 "raw input that is not square without --size" "$halden" thermal-shape odd.raw out.raw
expect 2 "--size that does not divide the raw input" "$halden" thermal-shape terrain.raw out.raw --size 100
expect 2 "--size that does not match the .npy" "$halden" thermal-shape demo/terrain.npy out.npy --size 32
check "the .npy mismatch is named" grep -q -- '--size 32 does not match the .npy shape (64, 64)' err.txt

# Usage errors.
for bad in "--amount abc" "--amount 1x" "--amount nan" "--amount=-inf" "--amount=" "--strength inf" \
    "--strength 1e99" "--extent 0" "--extent -5" "--height-scale 0" "--level-factor -0.1" "--size 0" \
    "--mask=" "--device=" "--frobnicate"; do
    # shellcheck disable=SC2086  # each entry is an option and its value
    expect 1 "thermal-shape $bad" "$halden" thermal-shape demo/terrain.npy out.npy $bad
done
expect 1 "thermal-shape without OUT" "$halden" thermal-shape demo/terrain.npy
expect 1 "thermal-shape --amount without a value" "$halden" thermal-shape demo/terrain.npy out.npy --amount
check "usage errors wrote nothing" test ! -e out.npy

# Missing and unreadable files.
expect 2 "thermal-shape of a missing file" "$halden" thermal-shape no-such-file.npy out.npy
expect 2 "median of a missing file" "$halden" median no-such-file.npy out.npy
expect 2 "thermal-shape of a directory" "$halden" thermal-shape demo out.npy
expect 2 "thermal-shape into a missing directory" "$halden" thermal-shape demo/terrain.npy no-such-dir/out.npy

# Device and library failures.
expect 3 "thermal-shape on an unknown device" "$halden" thermal-shape demo/terrain.npy out.npy --device no-such-device
expect 3 "a record the library rejects" "$halden" thermal-shape demo/terrain.npy out.npy --level-factor 1e30
check "the library's reason reaches stderr" grep -q 'more than 64 levels' err.txt
check "device failures wrote nothing" test ! -e out.npy

# --- flow --------------------------------------------------------------------------
expect 0 "flow, defaults" "$halden" flow demo/terrain.npy flow.npy
check "flow prints size and parameters" \
    grep -q '^flow 64x64, length 0.5, accumulation 1, seed 1 on .*: .* ms, .* Mcells/s$' out.txt
check "flow draws no bar when stderr is not a terminal" test ! -s err.txt
check "flow kept the .npy size" test "$(bytes flow.npy)" = "$(bytes demo/terrain.npy)"
check "flow matches the demo's result" cmp flow.npy demo/flow.npy
if command -v python3 >/dev/null; then
    check "the flow map is finite, never negative, and not all zero" python3 - flow.npy <<'EOF'
import array, math, sys
data = open(sys.argv[1], "rb").read()
values = array.array("f")
values.frombytes(data[10 + (data[8] | data[9] << 8):])
sys.exit(0 if len(values) == 64 * 64 and all(math.isfinite(v) and v >= 0 for v in values) and max(values) > 0 else 1)
EOF
else
    echo "skip: the flow map's values (no python3)"
fi
expect 0 "flow --seed 1 again" "$halden" flow demo/terrain.npy again.npy --seed 1 --no-progress
check "the same seed gives the same map" cmp again.npy flow.npy
expect 0 "flow --seed 2" "$halden" flow demo/terrain.npy seed2.npy --seed 2
check "another seed gives another map" eval '! cmp -s seed2.npy flow.npy'
expect 0 "flow --json" "$halden" flow demo/terrain.npy flow-json.npy --json
check "flow --json fields" \
    grep -q '^{"operation": "flow", "device": ".*", "width": 64, "height": 64, "milliseconds": ' out.txt
expect 0 "flow --quiet" "$halden" flow demo/terrain.npy flow-quiet.npy --quiet
check "flow --quiet prints nothing" test ! -s out.txt
check "flow --quiet still writes OUT" cmp flow-quiet.npy flow.npy
expect 0 "flow, every option" "$halden" flow demo/terrain.npy all-flow.npy --length=0.25 --accumulation 0 \
    --seed 4294967295 --device cpu --size 64 --no-progress
check "flow echoes the options" grep -q '^flow 64x64, length 0.25, accumulation 0, seed 4294967295 on ' out.txt
expect 0 "flow on raw, side inferred" "$halden" flow terrain.raw flow.raw --quiet
check "raw flow output is the .npy one's data" cmp flow.raw <(tail -c $((cells * 4)) flow.npy)
expect 0 "flow of a 128x32 raw grid" "$halden" flow terrain.raw wide-flow.raw --size 128
check "flow reports 128x32" grep -q '^flow 128x32,' out.txt
check "flow kept the raw size" test "$(bytes wide-flow.raw)" = $((cells * 4))

# Masks. Zero everywhere seeds no particle, so the map is all zero. One
# everywhere seeds every cell but draws its randomness differently from the
# unmasked run, so only its determinism is checked.
expect 0 "flow --mask (raw, all 0)" "$halden" flow demo/terrain.npy flow0.raw --mask zeros.raw
check "a zero mask gives an all-zero map" cmp flow0.raw zeros.raw
expect 0 "flow --mask (raw, all 1)" "$halden" flow demo/terrain.npy flow1.npy --mask ones.raw
expect 0 "flow --mask (raw, all 1) again" "$halden" flow demo/terrain.npy flow1-again.npy --mask ones.raw
check "a masked run is deterministic" cmp flow1.npy flow1-again.npy
expect 0 "flow --mask (.npy, all 1)" "$halden" flow demo/terrain.npy flow1n.npy --mask ones.npy
check "a .npy mask acts as the raw one" cmp flow1n.npy flow1.npy
expect 0 "flow --mask (raw, all 1) --seed 2" "$halden" flow demo/terrain.npy flow1-seed2.npy --mask ones.raw --seed 2
check "a masked run with another seed differs" eval '! cmp -s flow1-seed2.npy flow1.npy'
expect 0 "flow of a 128x32 raw grid with a raw mask" \
    "$halden" flow terrain.raw wide-flow0.raw --size 128 --mask zeros.raw
check "the 128x32 zero-masked map is all zero" cmp wide-flow0.raw zeros.raw
expect 2 "flow with a raw mask of 64x32 for 64x64" "$halden" flow demo/terrain.npy out.npy --mask half.raw
check "the flow mask mismatch is named" grep -q 'the mask is 64x32, but demo/terrain.npy is 64x64' err.txt
expect 2 "flow with a .npy mask of 128x32 for 64x64" "$halden" flow demo/terrain.npy out.npy --mask wide.npy
expect 2 "flow with a raw mask that is not whole rows" "$halden" flow demo/terrain.npy out.npy --mask short.raw
expect 2 "flow with a missing mask" "$halden" flow demo/terrain.npy out.npy --mask no-such-mask.raw
expect 2 "flow of a missing file" "$halden" flow no-such-file.npy out.npy
expect 2 "flow --size that does not match the .npy" "$halden" flow demo/terrain.npy out.npy --size 32

# Usage errors.
for bad in "--length -1" "--length nan" "--length=" "--length 1x" "--accumulation inf" "--accumulation abc" \
    "--seed abc" "--seed 4294967296" "--seed -1" "--seed 1.5" "--seed=" "--size 0" "--mask=" "--device=" \
    "--frobnicate"; do
    # shellcheck disable=SC2086  # each entry is an option and its value
    expect 1 "flow $bad" "$halden" flow demo/terrain.npy out.npy $bad
done
expect 1 "flow without OUT" "$halden" flow demo/terrain.npy

# Device and library failures.
expect 3 "flow on an unknown device" "$halden" flow demo/terrain.npy out.npy --device no-such-device
expect 3 "a flow record the library rejects" "$halden" flow demo/terrain.npy out.npy --length 1e9
check "the library's flow reason reaches stderr" grep -q 'at most 2^24 steps' err.txt
check "flow errors wrote nothing" test ! -e out.npy

# Ctrl-C: a 512x512 grid (the terrain's rows laid end to end) runs long enough
# for SIGINT to arrive during the run. The tool installs its handler just
# before the run; /proc shows when it has (SigCgt, bit 2 for SIGINT).
if [ -r /proc/self/status ]; then
    for _ in $(seq 64); do cat terrain.raw; done >big.raw
    # Job control, so that the background run does not start with SIGINT ignored.
    set -m
    # --verbose shows the library's own word that it stopped early.
    "$halden" flow big.raw cancelled.raw --size 512 --verbose >out.txt 2>err.txt &
    pid=$!
    set +m
    caught=
    for _ in $(seq 1000); do
        mask=$(awk '/^SigCgt:/ { print $2 }' "/proc/$pid/status" 2>/dev/null)
        if [ -z "$mask" ]; then break; fi  # the run is over
        if (((0x$mask & 2) != 0)); then caught=yes && break; fi
        sleep 0.01
    done
    kill -INT "$pid" 2>/dev/null
    wait "$pid"
    got=$?
    if [ -n "$caught" ] && [ "$got" = 3 ]; then pass "Ctrl-C cancels flow with exit 3"; else
        flunk "Ctrl-C cancels flow with exit 3: exit $got, handler seen: ${caught:-no}"
        sed 's/^/      /' out.txt err.txt
    fi
    check "the library stopped at the cancel request" grep -q 'FlowSimulation: cancelled' err.txt
    check "a cancelled flow says so" grep -q 'cancelled; cancelled.raw not written' err.txt
    check "a cancelled flow writes nothing" test ! -e cancelled.raw
else
    echo "skip: Ctrl-C cancels flow (no /proc)"
fi

# --- shade -------------------------------------------------------------------------
# is_png FILE: the file starts with the PNG signature.
is_png() { cmp -s <(head -c 8 "$1") <(printf '\211PNG\r\n\032\n'); }
# png_size FILE WIDTH HEIGHT: with python3, the chunks' CRCs hold, IHDR gives
# the size and 8-bit RGB, and the zlib stream (its Adler-32 checked by the
# decompression) holds a filter byte and the pixels of every row.
if command -v python3 >/dev/null; then
    cat >png_check.py <<'EOF'
import struct, sys, zlib
data = open(sys.argv[1], "rb").read()
width, height = int(sys.argv[2]), int(sys.argv[3])
assert data[:8] == b"\x89PNG\r\n\x1a\n"
at, chunks, idat = 8, [], b""
while at < len(data):
    (size,) = struct.unpack(">I", data[at:at + 4])
    kind, body = data[at + 4:at + 8], data[at + 8:at + 8 + size]
    assert struct.unpack(">I", data[at + 8 + size:at + 12 + size])[0] == zlib.crc32(kind + body), kind
    chunks.append(kind)
    if kind == b"IHDR":
        assert struct.unpack(">IIBBBBB", body) == (width, height, 8, 2, 0, 0, 0), body
    if kind == b"IDAT":
        idat += body
    at += 12 + size
assert chunks[0] == b"IHDR" and chunks[-1] == b"IEND", chunks
pixels = zlib.decompress(idat)
assert len(pixels) == height * (1 + 3 * width), len(pixels)
assert all(pixels[row * (1 + 3 * width)] == 0 for row in range(height))
EOF
    png_size() { python3 png_check.py "$@"; }
else
    png_size() { echo "skip: decoding $1 (no python3)"; }
fi

expect 0 "shade, defaults" "$halden" shade demo/terrain.npy shaded.png
check "shade prints size and lighting" \
    grep -q '^shade 64x64, sun 225/35, 7 sun samples, 32 sky directions (traced) on .*: .* ms, .* Mcells/s$' out.txt
check "shade wrote a PNG" is_png shaded.png
check "the PNG is 64x64 and decodes" png_size shaded.png 64 64
expect 0 "shade as the demo does" "$halden" shade demo/terrain.npy demo-like.png --terrain-size 10000
check "shade matches the demo's picture" cmp demo-like.png demo/shaded.png
expect 0 "shade --hybrid-ao" "$halden" shade demo/terrain.npy hybrid.png --hybrid-ao --ao 17
check "shade --hybrid-ao says so" \
    grep -q '^shade 64x64, sun 225/35, 7 sun samples, 17 sky directions (hybrid) on ' out.txt
check "the hybrid picture decodes" png_size hybrid.png 64 64
check "the hybrid sky differs from the traced one" eval '! cmp -s hybrid.png shaded.png'
expect 0 "shade --no-shadows --no-ao" "$halden" shade demo/terrain.npy plain.png --no-shadows --no-ao
check "shade --no-shadows --no-ao says so" \
    grep -q '^shade 64x64, sun 225/35, no shadows, no sky visibility on ' out.txt
check "the unshadowed picture decodes" png_size plain.png 64 64
expect 0 "shade, every option" "$halden" shade demo/terrain.npy all.png --sun-azimuth=-45.5 --sun-elevation 60 \
    --shadows 0 --sun-size 0 --ao 4 --terrain-size 1e4 --height-scale 2 --exposure 0.5 --device cpu --size 64
check "shade echoes the options" \
    grep -q '^shade 64x64, sun -45.5/60, 1 sun sample, 4 sky directions (traced) on ' out.txt
expect 0 "shade --json" "$halden" shade demo/terrain.npy json.png --json
check "shade --json fields" \
    grep -q '^{"operation": "shade", "device": ".*", "width": 64, "height": 64, "milliseconds": ' out.txt
expect 0 "shade --quiet" "$halden" shade demo/terrain.npy quiet.png --quiet
check "shade --quiet prints nothing" test ! -s out.txt
check "shade is deterministic" cmp quiet.png shaded.png

# The lighting's grids, .npy or raw like other outputs.
expect 0 "shade --diffuse --shadow --ao-out" "$halden" shade demo/terrain.npy grids.png --diffuse diffuse.npy \
    --shadow shadow.raw --ao-out=ao.npy
check "the extra grids leave the picture alone" cmp grids.png shaded.png
check "shade wrote the .npy diffuse grid" test "$(bytes diffuse.npy)" = "$(bytes demo/terrain.npy)"
check "shade wrote the raw shadow grid" test "$(bytes shadow.raw)" = $((cells * 4))
check "shade wrote the .npy ao grid" test "$(bytes ao.npy)" = "$(bytes demo/terrain.npy)"
if command -v python3 >/dev/null; then
    check "diffuse and shadow lie in [0, 1], the sky visibility is not negative" \
        python3 - diffuse.npy shadow.raw ao.npy <<'EOF'
import array, sys
def load(path, npy):
    data = open(path, "rb").read()
    values = array.array("f")
    values.frombytes(data[10 + (data[8] | data[9] << 8):] if npy else data)
    return values
diffuse, shadow, ao = load(sys.argv[1], True), load(sys.argv[2], False), load(sys.argv[3], True)
ok = all(len(g) == 64 * 64 for g in (diffuse, shadow, ao))
ok = ok and all(0 <= v <= 1 for g in (diffuse, shadow) for v in g) and all(v >= 0 for v in ao) and max(ao) > 0
sys.exit(0 if ok else 1)
EOF
else
    echo "skip: the lighting grids' values (no python3)"
fi

# Shadows and sky visibility need a square grid; without them any shape goes.
expect 2 "shade of a 128x32 grid" "$halden" shade terrain.raw wide.png --size 128
check "shade names the shape" grep -q 'need a square grid, this one is 128x32' err.txt
expect 2 "shade of a 128x32 grid with sky visibility" "$halden" shade terrain.raw wide.png --size 128 --no-shadows
check "nothing written for a non-square grid" test ! -e wide.png
expect 0 "shade of a 128x32 grid, --no-shadows --no-ao" \
    "$halden" shade terrain.raw wide.png --size 128 --no-shadows --no-ao --diffuse wide-diffuse.raw
check "shade reports 128x32" grep -q '^shade 128x32,' out.txt
check "the 128x32 picture decodes" png_size wide.png 128 32
check "the 128x32 diffuse grid has the raw size" test "$(bytes wide-diffuse.raw)" = $((cells * 4))

# Usage errors.
expect 1 "shade into a file not named .png" "$halden" shade demo/terrain.npy picture.npy
check "shade names the .png rule" grep -q 'OUT must be a .png file' err.txt
for bad in "--sun-azimuth abc" "--sun-azimuth nan" "--sun-azimuth=" "--sun-elevation 91" "--sun-elevation -1" \
    "--sun-elevation 1x" "--shadows 65" "--shadows -1" "--shadows 1.5" "--sun-size 180" "--sun-size -1" "--ao 0" \
    "--ao 4097" "--terrain-size 0" "--height-scale -1" "--exposure 0" "--exposure inf" "--size 0" "--diffuse=" \
    "--no-shadows --shadow s.npy" "--no-ao --ao-out a.npy" "--device=" "--frobnicate"; do
    # shellcheck disable=SC2086  # each entry is an option and its value
    expect 1 "shade $bad" "$halden" shade demo/terrain.npy out.png $bad
done
expect 1 "shade without OUT" "$halden" shade demo/terrain.npy
check "shade usage errors wrote nothing" test ! -e out.png -a ! -e picture.npy -a ! -e s.npy -a ! -e a.npy

# Input and device failures.
expect 2 "shade of a missing file" "$halden" shade no-such-file.npy out.png
expect 2 "shade into a missing directory" "$halden" shade demo/terrain.npy no-such-dir/out.png
expect 3 "shade on an unknown device" "$halden" shade demo/terrain.npy out.png --device no-such-device
check "shade failures wrote nothing" test ! -e out.png

# --- blur --------------------------------------------------------------------------
# load_grid, for the python checks: the floats of a .npy or raw grid.
cat >grid_load.py <<'EOF'
import array
def load(path):
    data = open(path, "rb").read()
    values = array.array("f")
    values.frombytes(data[10 + (data[8] | data[9] << 8):] if data[:6] == b"\x93NUMPY" else data)
    return values
EOF
floats '\x00\x10\x7a\x44' "$cells" constant.raw  # 1000.25f
expect 0 "blur, defaults" "$halden" blur demo/terrain.npy blurred.npy
check "blur prints size and radius" grep -q '^blur 64x64, radius 12 on .*: .* ms, .* Mcells/s$' out.txt
check "blur kept the .npy size" test "$(bytes blurred.npy)" = "$(bytes demo/terrain.npy)"
check "blur changed the heights" eval '! cmp -s blurred.npy demo/terrain.npy'
expect 0 "blur again" "$halden" blur demo/terrain.npy blurred-again.npy --radius 12 --device cpu --size 64
check "blur is deterministic" cmp blurred-again.npy blurred.npy
expect 0 "blur --radius 0.5" "$halden" blur demo/terrain.npy blurred-small.npy --radius=0.5
check "blur --radius 0.5 echoes the radius" grep -q '^blur 64x64, radius 0.5 on ' out.txt
check "another radius gives another grid" eval '! cmp -s blurred-small.npy blurred.npy'
expect 0 "blur on raw, side inferred" "$halden" blur terrain.raw blurred.raw --quiet
check "blur --quiet prints nothing" test ! -s out.txt
check "raw blur output is the .npy one's data" cmp blurred.raw <(tail -c $((cells * 4)) blurred.npy)
expect 0 "blur --json" "$halden" blur demo/terrain.npy blurred-json.npy --json
check "blur --json fields" grep -q '^{"operation": "blur", "device": ".*", "size": 64, "milliseconds": ' out.txt
expect 0 "blur of a constant grid" "$halden" blur constant.raw constant-blurred.raw
expect 0 "blur of a constant grid, radius past the grid" "$halden" blur constant.raw constant-wide.raw --radius 100.5
if command -v python3 >/dev/null; then
    check "blur keeps a constant grid (to 1e-6)" python3 - constant-blurred.raw constant-wide.raw <<'EOF'
import sys
from grid_load import load
ok = True
for path in sys.argv[1:]:
    values = load(path)
    ok = ok and len(values) == 64 * 64 and all(abs(v - 1000.25) <= 1e-6 * 1000.25 for v in values)
sys.exit(0 if ok else 1)
EOF
    check "blur narrows the range of heights" python3 - demo/terrain.npy blurred.npy <<'EOF'
import sys
from grid_load import load
before, after = load(sys.argv[1]), load(sys.argv[2])
sys.exit(0 if min(after) > min(before) and max(after) < max(before) else 1)
EOF
else
    echo "skip: blur values (no python3)"
fi
expect 2 "blur of a 128x32 grid" "$halden" blur terrain.raw wide-blurred.raw --size 128
check "blur names the shape" grep -q 'square grid, this one is 128x32' err.txt
expect 2 "blur of a missing file" "$halden" blur no-such-file.npy out.npy
expect 3 "blur on an unknown device" "$halden" blur demo/terrain.npy out.npy --device no-such-device
for bad in "--radius 0" "--radius -1" "--radius abc" "--radius nan" "--radius inf" "--radius=" "--size 0" \
    "--device=" "--frobnicate"; do
    # shellcheck disable=SC2086  # each entry is an option and its value
    expect 1 "blur $bad" "$halden" blur demo/terrain.npy out.npy $bad
done
expect 1 "blur without OUT" "$halden" blur demo/terrain.npy
check "blur failures wrote nothing" test ! -e out.npy -a ! -e wide-blurred.raw

# --- rasterize ---------------------------------------------------------------------
# Faces are counter-clockwise seen from +z with y up, as OBJ files have them.
printf '# a unit square at height 2\nv 0 0 2\nv 1 0 2\nv 1 1 2\nv 0 1 2\nf 1 2 3\nf 1 3 4\n' >square.obj
# Its right angle at the origin, the bottom left of the picture.
printf 'v 0 0 1\nv 1 0 1\nv 0 1 1\nf 1 2 3\n' >corner.obj
printf 'v 0 0 1\nv 1 0 1\nv 0 1 1\nf 1 3 2\n' >clockwise.obj
floats '\xff\xff\x7f\xff' 16 uncovered.raw  # 16 x -FLT_MAX

expect 0 "rasterize a square" "$halden" rasterize square.obj square.npy --size 16 16
check "rasterize prints counts, size and coverage" grep -q \
    '^rasterize square.obj: 4 vertices, 2 triangles into 16x16 on .*: .* ms, .* Mtriangles/s, 256 of 256 cells covered$' \
    out.txt
expect 0 "rasterize into a 16x8 raw grid with ids" "$halden" rasterize square.obj square.raw --size 16 8 --ids ids.raw
check "the 16x8 grid has its raw size" test "$(bytes square.raw)" = $((16 * 8 * 4))
check "the 16x8 id grid has its raw size" test "$(bytes ids.raw)" = $((16 * 8 * 4))
check "the square fills the left 8x8" grep -q ', 64 of 128 cells covered$' out.txt
expect 0 "rasterize --supersample" "$halden" rasterize square.obj square-ss.npy --size 16 16 --supersample
check "rasterize --supersample says so" grep -q 'into 16x16 (supersampled) on .*, 256 of 256 cells covered$' out.txt
expect 0 "rasterize --json" "$halden" rasterize square.obj square-json.npy --size 16 16 --json
check "rasterize --json fields" grep -q '^{"operation": "rasterize", "device": ".*", "width": 16, "height": 16, '\
'"vertices": 4, "triangles": 2, "covered": 256, "milliseconds": ' out.txt
expect 0 "rasterize --quiet" "$halden" rasterize square.obj square-quiet.npy --size 16 16 --quiet --device cpu
check "rasterize --quiet prints nothing" test ! -s out.txt
check "rasterize is deterministic" cmp square-quiet.npy square.npy

expect 0 "rasterize a counter-clockwise triangle" "$halden" rasterize corner.obj corner.raw --size 4 4
check "the counter-clockwise triangle is drawn" grep -q ', 10 of 16 cells covered$' out.txt
expect 0 "rasterize a clockwise triangle" "$halden" rasterize clockwise.obj clockwise.raw --size 4 4
check "the clockwise triangle is culled" cmp clockwise.raw uncovered.raw
check "an empty result is warned about" grep -q 'warning: no triangle covers' err.txt
# Every form of vertex reference, and the lines a reader skips, give the same triangle.
n=0
for face in "1/1 2/2 3/3" "1//1 2//2 3//3" "1/1/1 2/2/2 3/3/3" "-3 -2 -1" "-3/1 2//2 +3/3/3"; do
    n=$((n + 1))
    printf 'mtllib x.mtl\no corner\nv 0 0 1\nv 1 0 1 1\nv 0 1 1 # the top\nvt 0 0\nvn 0 0 1\ng top\ns off\n' >form$n.obj
    printf 'usemtl x\nf %s\n' "$face" >>form$n.obj
    expect 0 "rasterize with faces 'f $face'" "$halden" rasterize form$n.obj form$n.raw --size 4 4
    check "'f $face' is the same triangle" cmp form$n.raw corner.raw
done
printf 'v 0 0 1\nv 1 0 1\nf 3 4 5\nv 0 0 2\nv 1 0 2\nv 0 1 2\n' >forward.obj  # indices past the vertices read so far
expect 0 "rasterize with forward references" "$halden" rasterize forward.obj forward.raw --size 4 4

# A terrain of 8 x 8 vertices on the cell centres of an 8 x 8 grid (two unused
# corner vertices make the box 8 units wide, so one unit is one cell and the
# heights come back unscaled); each vertex's cell must show its height.
awk 'BEGIN {
    print "v 0 0 0"
    print "v 8 8 0"
    for (j = 0; j < 8; j++)
        for (i = 0; i < 8; i++) printf "v %g %g %g\n", i + 0.5, j + 0.5, ((i * 37 + j * 11) % 17) / 4
    for (j = 0; j < 7; j++)
        for (i = 0; i < 7; i++) {
            a = 3 + j * 8 + i
            printf "f %d %d %d\nf %d %d %d\n", a, a + 1, a + 9, a, a + 9, a + 8
        }
}' >terrain.obj
expect 0 "rasterize an 8x8 terrain mesh" "$halden" rasterize terrain.obj terrain-mesh.npy --size 8 8 --ids terrain-ids.npy
check "the terrain mesh covers every cell" grep -q '^rasterize terrain.obj: 66 vertices, 98 triangles into 8x8 .*, 64 of 64' out.txt

if command -v python3 >/dev/null; then
    # The interpolation may round the last bit.
    check "the square's heights are 2 scaled by 16" python3 - square.npy square-ss.npy <<'EOF'
import sys
from grid_load import load
sys.exit(0 if all(len(v) == 256 and all(abs(h - 32) <= 32e-6 for h in v) for v in map(load, sys.argv[1:])) else 1)
EOF
    check "the 16x8 grid and ids: covered on the left, empty on the right" python3 - square.raw ids.raw <<'EOF'
import sys
from grid_load import load
heights, ids = load(sys.argv[1]), load(sys.argv[2])
lowest = -3.4028234663852886e38
left = [i for i in range(128) if i % 16 < 8]
right = [i for i in range(128) if i % 16 >= 8]
ok = all(abs(heights[i] - 16) <= 16e-6 and 0 <= ids[i] < 1 for i in left)
ok = ok and all(heights[i] == lowest and ids[i] == -1 for i in right)
ok = ok and len({ids[i] for i in left}) == 2
sys.exit(0 if ok else 1)
EOF
    # Not mirrored: the triangle's right angle lies at the bottom left, so
    # cells below the diagonal are covered and cells above it are not.
    check "the triangle is neither mirrored nor upside down" python3 - corner.raw <<'EOF'
import sys
from grid_load import load
h = load(sys.argv[1])
ok = all(abs(h[r * 4 + c] - 4) <= 4e-6 for r in range(4) for c in range(4) if c < r)
ok = ok and all(h[r * 4 + c] < -1e38 for r in range(4) for c in range(4) if c > r)
sys.exit(0 if ok else 1)
EOF
    check "the forward-referenced triangle is drawn too" python3 - forward.raw <<'EOF'
import sys
from grid_load import load
sys.exit(0 if max(load(sys.argv[1])) > 0 else 1)
EOF
    # Each triangle is enlarged by 0.5 % about its centroid, which moves a
    # vertex's height by at most 0.5 % of the relief.
    check "the terrain mesh gives each vertex's height at its cell" python3 - terrain-mesh.npy terrain-ids.npy <<'EOF'
import sys
from grid_load import load
heights, ids = load(sys.argv[1]), load(sys.argv[2])
ok = len(heights) == 64 and all(0 <= v < 1 for v in ids)
for j in range(8):
    for i in range(8):
        want = ((i * 37 + j * 11) % 17) / 4
        ok = ok and abs(heights[(7 - j) * 8 + i] - want) <= 0.01 * 4
sys.exit(0 if ok else 1)
EOF
else
    echo "skip: rasterized values (no python3)"
fi

# Malformed meshes name the file and line.
printf 'v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nf 1 2 3 4\n' >quad.obj
expect 2 "rasterize a quad" "$halden" rasterize quad.obj out.npy --size 4 4
check "the quad is named by file and line" grep -q 'quad.obj:5: only triangles are supported' err.txt
printf 'v 0 0 0\nv 1 0 0\nv 1 1 0\nf 1 2 9\n' >bad-index.obj
expect 2 "rasterize an index past the vertices" "$halden" rasterize bad-index.obj out.npy --size 4 4
check "the bad index is named by file and line" grep -q 'bad-index.obj:4: vertex index 9 is past the 3 vertices' err.txt
printf 'v 0 0 0\nv 1 0 0\nv 1 1 0\nf -4 -2 -1\n' >bad-negative.obj
expect 2 "rasterize a negative index before the first vertex" "$halden" rasterize bad-negative.obj out.npy --size 4 4
printf 'v 0 0 0\nv 1 0 0\nv 1 1 0\nf 0 1 2\n' >zero-index.obj
expect 2 "rasterize a zero index" "$halden" rasterize zero-index.obj out.npy --size 4 4
printf 'v 0 0 0\nv 1 abc 0\nv 1 1 0\nf 1 2 3\n' >bad-number.obj
expect 2 "rasterize a bad number" "$halden" rasterize bad-number.obj out.npy --size 4 4
check "the bad number is named by file and line" grep -q "bad-number.obj:2: 'abc' is not a finite number" err.txt
printf 'v 0 0 0\nv 1 0 0\nv 1 1 0\nf 1 2/ 3\n' >bad-reference.obj
expect 2 "rasterize a bad reference" "$halden" rasterize bad-reference.obj out.npy --size 4 4
printf 'v 0 0 0\nv 1 0 0\nf 1 2\n' >line-face.obj
expect 2 "rasterize a face of two vertices" "$halden" rasterize line-face.obj out.npy --size 4 4
printf 'v 0 0 0\nv 1 0\n' >short-vertex.obj
expect 2 "rasterize a vertex without z" "$halden" rasterize short-vertex.obj out.npy --size 4 4
printf 'v 0 0 0\n' >no-faces.obj
expect 2 "rasterize a mesh without faces" "$halden" rasterize no-faces.obj out.npy --size 4 4
expect 2 "rasterize a missing file" "$halden" rasterize no-such-file.obj out.npy --size 4 4
expect 2 "rasterize into a missing directory" "$halden" rasterize square.obj no-such-dir/out.npy --size 4 4
expect 3 "rasterize on an unknown device" "$halden" rasterize square.obj out.npy --size 4 4 --device no-such-device

# Usage errors.
for bad in "--size 0 4" "--size 4 0" "--size abc 4" "--size 4 -1" "--size 4 1.5" "--size 16385 4" \
    "--size 8193 8 --supersample" "--size=4 4" "--size 4"; do
    # shellcheck disable=SC2086  # each entry is an option and its values
    expect 1 "rasterize $bad" "$halden" rasterize square.obj out.npy $bad
done
expect 1 "rasterize without --size" "$halden" rasterize square.obj out.npy
for bad in "--ids=" "--device=" "--frobnicate"; do
    expect 1 "rasterize $bad" "$halden" rasterize square.obj out.npy --size 4 4 $bad
done
expect 1 "rasterize without OUT" "$halden" rasterize square.obj --size 4 4
check "rasterize failures wrote nothing" test ! -e out.npy

# --- help ------------------------------------------------------------------------
expect 0 "thermal-shape --help" "$halden" thermal-shape --help
check "thermal-shape --help shows the usage" grep -q '^usage: halden thermal-shape IN OUT' out.txt
expect 0 "flow --help" "$halden" flow --help
check "flow --help shows the usage" grep -q '^usage: halden flow IN OUT' out.txt
expect 0 "shade --help" "$halden" shade --help
check "shade --help shows the usage" grep -q '^usage: halden shade IN OUT.png' out.txt
expect 0 "blur --help" "$halden" blur --help
check "blur --help shows the usage" grep -q '^usage: halden blur IN OUT' out.txt
expect 0 "rasterize --help" "$halden" rasterize --help
check "rasterize --help shows the usage" grep -q '^usage: halden rasterize MESH.obj OUT --size W H' out.txt
check "rasterize --help names the winding" grep -q 'counter-clockwise seen from above (+z)' out.txt
expect 0 "demo --help" "$halden" demo --help
check "demo --help names flow.npy" grep -q 'DIR/flow.npy' out.txt
check "demo --help names shaded.png" grep -q 'DIR/shaded.png' out.txt
expect 0 "halden --help lists every command" "$halden" --help
check "the command list names thermal-shape" grep -q '^  thermal-shape ' out.txt
check "the command list names flow" grep -q '^  flow ' out.txt
check "the command list names shade" grep -q '^  shade ' out.txt
check "the command list names blur" grep -q '^  blur ' out.txt
check "the command list names rasterize" grep -q '^  rasterize ' out.txt
expect 1 "an unknown command" "$halden" no-such-command

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "all checks passed"
