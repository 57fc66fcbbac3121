#!/usr/bin/env bash
# Runs the halden tool's commands on small grids and checks their results and
# exit codes: 1 for usage errors, 2 for unreadable files and grids or meshes
# of the wrong shape, 3 for device and library failures. Needs bash and
# coreutils; python3, when present, adds checks of output values, and /proc,
# when present, a Ctrl-C check.
#
# usage: cli_test.sh HALDEN WORKDIR   (WORKDIR is emptied first)
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
    if [ "$got" = "$want" ]; then pass "$what"; else
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
# floats HEX_LE COUNT FILE: COUNT copies of one float32 given as escaped bytes.
floats() { printf "$1%.0s" $(seq "$2") >"$3"; }
# py WHAT SCRIPT ARGS...: a value check in python3, skipped without it.
have_python=$(command -v python3 >/dev/null && echo yes)
py() {
    local what=$1 script=$2
    shift 2
    if [ -n "$have_python" ]; then check "$what" python3 -c "$script" "$@"; else echo "skip: $what (no python3)"; fi
}
# npy HEADER DATA FILE: a version 1.0 .npy file with the header dict HEADER and
# the escaped bytes DATA.
npy() {
    local length=$((${#1} + 1))
    printf "\\x93NUMPY\\x01\\x00\\x$(printf %02x "$length")\\x00%s\\n$2" "$1" >"$3"
}
cat >grid_load.py <<'EOF'
import array
def load(path):
    data = open(path, "rb").read()
    start = 10 + (data[8] | data[9] << 8) if data[:6] == b"\x93NUMPY" else 0
    values = array.array("f")
    values.frombytes(data[start:])
    return values
EOF

# --- devices and demo (which makes the inputs below) --------------------------------
expect 0 "devices" "$halden" devices
check "devices names the cpu key" grep -q '"cpu"' out.txt
expect 0 "devices --json" "$halden" devices --json
check "devices --json prints an array" grep -q '^\[{"name": ' out.txt
sample=/usr/share/matplotlib/mpl-data/sample_data/jacksboro_fault_dem.npz
gdal=$("$halden" --help | grep -q 'built in: yes' && echo yes)
expect 0 "demo --size 64 --out demo" "$halden" demo --size 64 --out demo
check "demo times its steps" grep -q '^  thermal shaping  *[0-9.]* ms' out.txt
check "demo times its erosion" grep -q '^  erosion  *[0-9.]* ms' out.txt
for f in terrain.npy median.npy thermal.npy flow.npy eroded.npy relief.png flow.png eroded.png; do
    check "demo wrote $f" test -s "demo/$f"
done
check "the eroded relief differs from the relief" eval '! cmp -s demo/eroded.png demo/relief.png'
check "demo wrote craters.png, unlike the relief" eval 'test -s demo/craters.png && ! cmp -s demo/craters.png demo/relief.png'
check "demo wrote colour.png" test -s demo/colour.png
check "demo wrote dunes.png" test -s demo/dunes.png
if [ -n "$gdal" ] && [ -r "$sample" ]; then
    for f in dem-relief.png dem-flow.png dem-eroded.png; do check "demo wrote $f from the real model" test -s "demo/$f"; done
else
    echo "skip: demo on the real model (no GDAL or no $sample)"
fi
expect 0 "demo --json" "$halden" demo --size 16 --out demo16 --dem none --json
check "demo --json lists the steps" grep -q '"steps": \[{"step": "generate terrain 16x16", "device": null, ' out.txt
cells=$((64 * 64))
# The demo's .npy header is padded to a multiple of 64 bytes; the data follows.
tail -c $((cells * 4)) demo/terrain.npy >terrain.raw
floats '\x00\x00\x80\x3f' "$cells" ones.raw  # 1.0f
head -c $((cells * 4)) /dev/zero >zeros.raw
head -c $((cells * 2)) /dev/zero >half.raw   # 64 x 32

# --- median ----------------------------------------------------------------------------
expect 0 "median on .npy" "$halden" median demo/terrain.npy median.npy --radius 3 --iterations 2
check "median matches the demo's result" cmp median.npy demo/median.npy
check "median prints its size" grep -q '^median 64x64, radius 3, 2 iteration(s) on ' out.txt
expect 0 "median on raw, side inferred, --quiet" "$halden" median terrain.raw median.raw --radius 3 --iterations 2 --quiet
check "median --quiet prints nothing" test ! -s out.txt
check "raw median output is the .npy one's data" cmp median.raw <(tail -c $((cells * 4)) median.npy)
expect 0 "median --json" "$halden" median demo/terrain.npy median.npy --json
check "median --json fields" grep -q '^{"operation": "median", "device": ".*", "size": 64, "milliseconds": ' out.txt
expect 2 "median of a non-square raw grid" "$halden" median terrain.raw out.raw --size 128
check "median wrote nothing on failure" test ! -e out.raw
expect 1 "median --radius 9" "$halden" median demo/terrain.npy out.npy --radius 9
# The filter pads its windows with 1e8 and cannot return larger heights: the tool warns.
printf '\x00\x00\x80\x3f%.0s' 1 2 3 >huge.raw
printf '\x00\x00\x80\x7f' >>huge.raw  # +Inf
expect 0 "median of a grid with +Inf" "$halden" median huge.raw huge-out.raw --quiet
check "it warns about the cell past 1e8" grep -qx \
    'halden: warning: huge.raw: 1 cell exceeds 1e8; the median filter maps such values to about 1e8' err.txt

# --- thermal-shape ------------------------------------------------------------------------
expect 0 "thermal-shape, defaults" "$halden" thermal-shape demo/terrain.npy shaped.npy
check "thermal-shape prints its parameters" grep -q '^thermal-shape 64x64, amount -0.5, strength 1, 64 wide on ' out.txt
check "thermal-shape changed the heights" eval '! cmp -s shaped.npy demo/terrain.npy'
expect 0 "thermal-shape with the demo's extent" "$halden" thermal-shape demo/median.npy demo-like.npy --extent 10000
check "thermal-shape matches the demo's result" cmp demo-like.npy demo/thermal.npy
expect 0 "thermal-shape --strength 0" "$halden" thermal-shape demo/terrain.npy same.npy --strength 0 --amount 0.5
check "strength 0 returns the input bit for bit" cmp same.npy demo/terrain.npy
expect 0 "thermal-shape --mask (raw, all 0)" "$halden" thermal-shape demo/terrain.npy masked0.npy --mask zeros.raw
check "a zero mask changes the result" eval '! cmp -s masked0.npy shaped.npy'
expect 0 "thermal-shape of a 128x32 raw grid" "$halden" thermal-shape terrain.raw wide.raw --size 128
check "thermal-shape reports 128x32" grep -q '^thermal-shape 128x32,' out.txt
expect 2 "thermal-shape with a 64x32 mask for 64x64" "$halden" thermal-shape demo/terrain.npy out.npy --mask half.raw
for bad in "--amount nan" "--strength 1x" "--extent 0" "--frobnicate"; do
    # shellcheck disable=SC2086  # each entry is an option and its value
    expect 1 "thermal-shape $bad" "$halden" thermal-shape demo/terrain.npy out.npy $bad
done

# --- flow -----------------------------------------------------------------------------------
expect 0 "flow, defaults" "$halden" flow demo/thermal.npy flow.npy
check "flow draws no bar when stderr is not a terminal" test ! -s err.txt
check "flow matches the demo's result" cmp flow.npy demo/flow.npy
expect 0 "flow --seed 2 --json" "$halden" flow demo/terrain.npy seed2.npy --seed 2 --json
check "flow --json fields" grep -q '^{"operation": "flow", "device": ".*", "width": 64, "height": 64, ' out.txt
check "another seed gives another map" eval '! cmp -s seed2.npy flow.npy'
expect 0 "flow --mask (raw, all 0)" "$halden" flow demo/terrain.npy flow0.raw --mask zeros.raw
check "a zero mask gives an all-zero map" cmp flow0.raw zeros.raw
expect 2 "flow with a 64x32 mask for 64x64" "$halden" flow demo/terrain.npy out.npy --mask half.raw
for bad in "--length -1" "--seed 4294967296" "--seed abc"; do
    # shellcheck disable=SC2086
    expect 1 "flow $bad" "$halden" flow demo/terrain.npy out.npy $bad
done
expect 3 "a flow record the library rejects" "$halden" flow demo/terrain.npy out.npy --length 1e9
check "the library's reason reaches stderr" grep -q 'at most 2^24 steps' err.txt
check "one failure makes one line" test "$(wc -l <err.txt)" = 1

# interrupt WHAT OUT COMMAND...: sends Ctrl-C to COMMAND once its handler is
# installed (/proc shows when: SigCgt bit 2) and checks that it exits 3 and
# leaves OUT unwritten. A 512x512 grid runs long enough for SIGINT to arrive
# during the run.
interrupt() {
    local what=$1 out=$2
    shift 2
    if [ ! -r /proc/self/status ]; then
        echo "skip: Ctrl-C cancels $what (no /proc)"
        return
    fi
    set -m  # so the background run does not start with SIGINT ignored
    "$@" >out.txt 2>err.txt &
    local pid=$!
    set +m
    local caught= sig
    for _ in $(seq 1000); do
        sig=$(awk '/^SigCgt:/ { print $2 }' "/proc/$pid/status" 2>/dev/null)
        if [ -z "$sig" ]; then break; fi
        if (((0x$sig & 2) != 0)); then caught=yes && break; fi
        sleep 0.01
    done
    kill -INT "$pid" 2>/dev/null
    wait "$pid"
    local got=$?
    if [ -n "$caught" ] && [ "$got" = 3 ]; then pass "Ctrl-C cancels $what with exit 3"; else
        flunk "Ctrl-C cancels $what with exit 3: exit $got, handler seen: ${caught:-no}"
    fi
    check "a cancelled $what writes nothing" test ! -e "$out"
    check "a cancelled $what says so" grep -qx "halden: error: cancelled; $out not written" err.txt
}
for _ in $(seq 64); do cat terrain.raw; done >big.raw
interrupt flow cancelled.raw "$halden" flow big.raw cancelled.raw --size 512

# --- color-transport ----------------------------------------------------------------------------
# colours H W FILE: an (H, W, 3) float32 .npy, every sample 0.5.
colours() {
    npy "{'descr': '<f4', 'fortran_order': False, 'shape': ($1, $2, 3), }" "" "$3.head"
    floats '\x00\x00\x00\x3f' $(($1 * $2 * 3)) "$3.data"
    cat "$3.head" "$3.data" >"$3" && rm -f "$3.head" "$3.data"
}
colours 64 64 grey.npy
colours 64 32 narrow.npy
expect 0 "color-transport of one colour" "$halden" color-transport demo/thermal.npy grey.npy grey-out.npy
check "one colour comes back unchanged" cmp <(tail -c 49152 grey.npy) <(tail -c 49152 grey-out.npy)
expect 0 "color-transport of a picture, --json" "$halden" color-transport demo/thermal.npy demo/relief.png \
    carried.png --pickup 0 --strength 1 --json
check "color-transport --json fields" \
    grep -q '^{"operation": "color-transport", "device": ".*", "width": 64, "height": 64, ' out.txt
check "color-transport wrote a PNG" test -s carried.png
expect 0 "color-transport, picture to .npy with a mask" "$halden" color-transport demo/thermal.npy demo/relief.png \
    carried.npy --mask zeros.raw
check "a .npy of (64, 64, 3) float32" test "$(wc -c <carried.npy)" -ge 49152
py "a zero mask keeps the picture's samples" 'import array, sys
a = array.array("f", open(sys.argv[1], "rb").read()[-49152:])
sys.exit(0 if all(abs(v * 255 - round(v * 255)) < 1e-3 for v in a) else 1)' carried.npy
expect 2 "colours of another shape" "$halden" color-transport demo/thermal.npy narrow.npy out.npy
expect 2 "colours that are a height grid" "$halden" color-transport demo/thermal.npy demo/thermal.npy out.npy
expect 2 "missing colours" "$halden" color-transport demo/thermal.npy no-such-file.npy out.npy
expect 2 "colours in another format" "$halden" color-transport demo/thermal.npy terrain.raw out.npy
for bad in "--pickup 2" "--strength -1" "--weight 0" "--saturation -1" "--length -1" "--seed -1"; do
    # shellcheck disable=SC2086
    expect 1 "color-transport $bad" "$halden" color-transport demo/thermal.npy grey.npy out.npy $bad
done
check "failures wrote nothing" test ! -e out.npy
expect 1 "COLOUR_OUT of another format" "$halden" color-transport demo/thermal.npy grey.npy out.tif
npy "{'descr': '<f4', 'fortran_order': False, 'shape': (512, 512, 3), }" "" big-colours.npy
head -c $((512 * 512 * 12)) /dev/zero >>big-colours.npy
interrupt color-transport cancelled.npy "$halden" color-transport big.raw big-colours.npy cancelled.npy --size 512

# --- thermal-erode ---------------------------------------------------------------------------
# Checks of what the library promises whatever its tuning: a flat grid and
# hard ground stay as they are, the closed borders keep the total height.
expect 0 "thermal-erode, defaults" "$halden" thermal-erode demo/thermal.npy weathered.npy --deposition laid.npy
check "thermal-erode prints its parameters" grep -q \
    '^thermal-erode 64x64, talus 35 degrees, 64 iterations, cells 1 wide on ' out.txt
check "thermal-erode changed the heights" eval '! cmp -s weathered.npy demo/thermal.npy'
check "thermal-erode wrote the deposition" test "$(wc -c <laid.npy)" = "$(wc -c <weathered.npy)"
expect 0 "thermal-erode on one level" "$halden" thermal-erode demo/thermal.npy weathered.npy --levels 1 \
    --deposition laid.npy
py "the total height is kept and nothing negative is laid down" 'import sys; from grid_load import load
a, b, laid = load(sys.argv[1]), load(sys.argv[2]), load(sys.argv[3])
sys.exit(0 if abs(sum(a) - sum(b)) <= 1e-5 * sum(abs(x) for x in a) and min(laid) >= 0 < max(laid) else 1)' \
    demo/thermal.npy weathered.npy laid.npy
expect 0 "thermal-erode of a flat grid" "$halden" thermal-erode zeros.raw flat-weathered.raw --talus-angle 1
check "a flat grid stays flat" cmp flat-weathered.raw zeros.raw
expect 0 "thermal-erode on hard ground (raw, all 1)" "$halden" thermal-erode demo/thermal.npy hard.npy --hardness ones.raw
check "ground of hardness 1 sheds nothing" cmp hard.npy demo/thermal.npy
expect 0 "thermal-erode with every option" "$halden" thermal-erode demo/thermal.npy options.npy --mask ones.raw \
    --extent 640 --height-scale 2 --talus-angle 20 --talus-noise 0 --rate 1 --iterations 8 --levels 2 \
    --burial-scale 0.5 --mask-strength 0.5 --seed 7
check "it reports cells 10 wide" grep -q '^thermal-erode 64x64, talus 20 degrees, 8 iterations, cells 10 wide on ' out.txt
expect 0 "thermal-erode of a 128x32 raw grid" "$halden" thermal-erode terrain.raw wide.raw --size 128 --cell-size 5
check "thermal-erode reports 128x32" grep -q '^thermal-erode 128x32,' out.txt
expect 2 "thermal-erode with a 64x32 hardness grid for 64x64" "$halden" thermal-erode demo/thermal.npy out.npy \
    --hardness half.raw
check "it names the hardness grid" grep -q 'half.raw: the hardness grid is 64x32, but demo/thermal.npy is 64x64' err.txt
expect 2 "thermal-erode with a 64x32 mask for 64x64" "$halden" thermal-erode demo/thermal.npy out.npy --mask half.raw
for bad in "--talus-angle 90" "--talus-noise 1.5" "--rate 0" "--iterations 100001" "--levels 65" "--burial-scale 0" \
    "--mask-strength -0.1" "--seed -1" "--cell-size 2 --extent 64"; do
    # shellcheck disable=SC2086  # each entry is options and their values
    expect 1 "thermal-erode $bad" "$halden" thermal-erode demo/thermal.npy out.npy $bad
done
check "the usage errors wrote nothing" test ! -e out.npy
interrupt thermal-erode cancelled.raw "$halden" thermal-erode big.raw cancelled.raw --size 512 --iterations 100000 \
    --deposition cancelled-laid.raw
check "a cancelled thermal-erode writes no deposition" test ! -e cancelled-laid.raw

# --- erode -------------------------------------------------------------------------------------
expect 0 "erode, one round, every map" "$halden" erode demo/thermal.npy eroded.npy --rounds 1 \
    --erosion cut.npy --deposition settled.npy --discharge water.npy
check "erode prints its parameters" grep -q '^erode 64x64, [0-9.]* droplets per cell, 1 rounds, seed 1, cells 1 wide on ' out.txt
check "erode changed the heights" eval '! cmp -s eroded.npy demo/thermal.npy'
py "the maps have the grid's size and their ranges" 'import sys; from grid_load import load
cut, settled, water = (load(f) for f in sys.argv[1:])
ok = len(cut) == len(settled) == len(water) == 64 * 64 and min(cut) >= 0 and min(settled) >= 0
sys.exit(0 if ok and 0 <= min(water) < max(water) <= 1 else 1)' cut.npy settled.npy water.npy
expect 0 "erode --seed 2" "$halden" erode demo/thermal.npy seed2.npy --rounds 1 --seed 2 --json
check "erode --json fields" grep -q '^{"operation": "erode", "device": ".*", "width": 64, "height": 64, ' out.txt
check "another seed gives another result" eval '! cmp -s seed2.npy eroded.npy'
expect 0 "erode without rain (raw, all 0)" "$halden" erode demo/thermal.npy dry.npy --rain zeros.raw
check "no rain leaves the heights as they were" cmp dry.npy demo/thermal.npy
expect 0 "erode with every option" "$halden" erode demo/thermal.npy options.npy --rain ones.raw --hardness zeros.raw \
    --extent 640 --height-scale 2 --droplets 0.5 --rounds 1 --lifetime 100 --inertia 0.5 --capacity 2 \
    --min-slope 0.05 --erosion-rate 0.2 --deposition-rate 0.4 --evaporation 0.1 --gravity 2 --brush-radius 0 \
    --flow-coupling 0 --levels 1 --detail-scale 3 --seed 3
check "it reports cells 10 wide" grep -q '^erode 64x64, 0.5 droplets per cell, 1 rounds, seed 3, cells 10 wide on ' out.txt
expect 2 "erode with a 64x32 rain grid for 64x64" "$halden" erode demo/thermal.npy out.npy --rain half.raw
check "it names the rain grid" grep -q 'half.raw: the rain grid is 64x32, but demo/thermal.npy is 64x64' err.txt
for bad in "--droplets 0" "--droplets 17" "--rounds 100001" "--lifetime 0" "--inertia 1" "--capacity -1" \
    "--min-slope nan" "--erosion-rate 1.5" "--deposition-rate -1" "--evaporation 1" "--gravity -2" \
    "--brush-radius 9" "--flow-coupling 2" "--levels 65" "--detail-scale 0" "--seed 4294967296" \
    "--cell-size 2 --extent 64"; do
    # shellcheck disable=SC2086
    expect 1 "erode $bad" "$halden" erode demo/thermal.npy out.npy $bad
done
expect 3 "an erosion record the library rejects" "$halden" erode demo/thermal.npy out.npy --lifetime 1e9
check "the library's reason reaches stderr" grep -q 'lifetime must be at most 65536 cells' err.txt
check "one failure makes one line" test "$(wc -l <err.txt)" = 1
check "the failures wrote nothing" test ! -e out.npy
# Flat ground: the droplets run every round without wearing anything away.
head -c $((512 * 512 * 4)) /dev/zero >big-flat.raw
interrupt erode cancelled.raw "$halden" erode big-flat.raw cancelled.raw --rounds 100000 --discharge cancelled-water.raw
check "a cancelled erode writes no map" test ! -e cancelled-water.raw

# --- shade ------------------------------------------------------------------------------------
expect 0 "shade, defaults" "$halden" shade demo/terrain.npy shaded.png
check "shade prints its lighting" grep -q '^shade 64x64, sun 225/35, 7 sun samples, 32 sky directions (traced) on ' out.txt
expect 0 "shade as the demo does" "$halden" shade demo/thermal.npy demo-like.png --terrain-size 10000 --height-scale 3
check "shade matches the demo's picture" cmp demo-like.png demo/relief.png
# The chunks' CRCs hold, IHDR gives the size and 8-bit RGB, and the zlib
# stream (its Adler-32 checked by decompression) holds every row.
png_ok='import struct, sys, zlib
d = open(sys.argv[1], "rb").read(); assert d[:8] == b"\x89PNG\r\n\x1a\n"
at, idat = 8, b""
while at < len(d):
    (n,) = struct.unpack(">I", d[at:at + 4]); kind, body = d[at + 4:at + 8], d[at + 8:at + 8 + n]
    assert struct.unpack(">I", d[at + 8 + n:at + 12 + n])[0] == zlib.crc32(kind + body)
    if kind == b"IHDR": assert struct.unpack(">IIBBBBB", body) == (w, h, 8, 2, 0, 0, 0)
    if kind == b"IDAT": idat += body
    at += 12 + n
assert len(zlib.decompress(idat)) == h * (1 + 3 * w)'
py "the PNG is 64x64 RGB and decodes" "w, h = 64, 64; $png_ok" shaded.png
expect 0 "shade --hybrid-ao and the grids" "$halden" shade demo/terrain.npy hybrid.png --hybrid-ao \
    --diffuse diffuse.npy --shadow shadow.npy --ao-out ao.raw
check "the hybrid sky differs from the traced one" eval '! cmp -s hybrid.png shaded.png'
check "shade wrote the ao grid" test "$(wc -c <ao.raw)" = $((cells * 4))
expect 0 "shade of a 128x32 grid with shadows" "$halden" shade terrain.raw wide.png --size 128
py "the picture keeps the grid's shape" "w, h = 128, 32; $png_ok" wide.png
expect 1 "shade into a file not named .png" "$halden" shade demo/terrain.npy picture.npy
cp shaded.png kept.png
expect 2 "shade with an extra grid that cannot be written" "$halden" shade demo/terrain.npy kept.png \
    --sun-azimuth 90 --diffuse no-such-dir/diffuse.npy
check "the picture is kept and no temporary is left" eval 'cmp -s kept.png shaded.png && ! ls -a | grep -q halden-'
expect 1 "shade --sun-elevation 91" "$halden" shade demo/terrain.npy out.png --sun-elevation 91
# Shading polls for Ctrl-C once, late: a larger grid and more samples keep it
# busy long enough on a fast machine.
for _ in $(seq 4); do cat big.raw; done >bigger.raw
interrupt shade cancelled.png "$halden" shade bigger.raw cancelled.png --size 1024 --shadows 2 --ao 73

# Pictures are deflate-compressed: a flat grid under an overhead sun is one
# colour, (sun + 0.4 sky) x exposure, in far fewer bytes than its pixels, and
# the demo's relief still comes out well below them. The decoder undoes every
# row filter, so the pixels are checked, not only the stream.
printf '\x00\x00\x00\x00%.0s' $(seq "$cells") >flat.raw
expect 0 "shade a flat grid" "$halden" shade flat.raw flat.png --sun-elevation 90 --no-ao --exposure 0.5
check "the flat picture is compressed" test "$(wc -c <flat.png)" -lt $((cells * 3 / 10))
check "the demo's relief is compressed" test "$(wc -c <demo/relief.png)" -lt $((cells * 3 * 3 / 4))
png_pixels='import struct, sys, zlib
d = open(sys.argv[1], "rb").read(); assert d[:8] == b"\x89PNG\r\n\x1a\n"
at, idat = 8, b""
while at < len(d):
    (n,) = struct.unpack(">I", d[at:at + 4]); kind, body = d[at + 4:at + 8], d[at + 8:at + 8 + n]
    assert struct.unpack(">I", d[at + 8 + n:at + 12 + n])[0] == zlib.crc32(kind + body)
    if kind == b"IHDR": w, h, depth, colour = struct.unpack(">IIBB", body[:10]); assert (depth, colour) == (8, 2)
    if kind == b"IDAT": idat += body
    at += 12 + n
raw, stride, prev, pixels = zlib.decompress(idat), 3 * w, bytearray(3 * w), set()
for y in range(h):
    kind, line = raw[y * (stride + 1)], bytearray(raw[y * (stride + 1) + 1:(y + 1) * (stride + 1)])
    for i in range(stride):
        a, b, c = line[i - 3] if i >= 3 else 0, prev[i], prev[i - 3] if i >= 3 else 0
        p = a + b - c
        paeth = a if abs(p - a) <= min(abs(p - b), abs(p - c)) else b if abs(p - b) <= abs(p - c) else c
        line[i] = (line[i] + [0, a, b, (a + b) // 2, paeth][kind]) & 255
    pixels |= {tuple(line[i:i + 3]) for i in range(0, stride, 3)}
    prev = line
def srgb(x): return round(255 * (12.92 * x if x <= 0.0031308 else 1.055 * x ** (1 / 2.4) - 0.055))
want = tuple(srgb(0.5 * (s + 0.4 * k)) for s, k in zip((1, 0.95, 0.85), (0.6, 0.7, 1)))
assert (w, h) == (64, 64) and len(pixels) == 1 and all(abs(x - y) <= 1 for x, y in zip(pixels.pop(), want))'
py "the flat picture decodes to its one colour" "$png_pixels" flat.png
if [ -n "$gdal" ]; then
    expect 0 "GDAL reads the relief back" "$halden" median demo/relief.png relief.npy --iterations 0
    check "as a 64x64 grid" grep -q '^median 64x64,' out.txt
fi

# --- blur --------------------------------------------------------------------------------------
expect 0 "blur, defaults" "$halden" blur demo/terrain.npy blurred.npy
check "blur prints size and radius" grep -q '^blur 64x64, radius 12 on ' out.txt
check "blur changed the heights" eval '! cmp -s blurred.npy demo/terrain.npy'
expect 0 "blur with a radius past the grid" "$halden" blur demo/terrain.npy wide-blurred.npy --radius 100.5
expect 2 "blur of a 128x32 grid" "$halden" blur terrain.raw out.raw --size 128
expect 1 "blur --radius 0" "$halden" blur demo/terrain.npy out.npy --radius 0
expect 1 "blur --radius past 2^24" "$halden" blur demo/terrain.npy out.npy --radius 3e9

# --- rasterize -----------------------------------------------------------------------------------
printf '# a unit square at height 2\nv 0 0 2\nv 1 0 2\nv 1 1 2\nv 0 1 2\nf 1 2 3\nf 1 3//1 4/1/1\n' >square.obj
printf 'v 0 0 1\nv 1 0 1\nv 0 1 1\nf 1 2 3\n' >corner.obj
printf 'v 0 0 1\nv 1 0 1\nv 0 1 1\nf 1 3 2\n' >clockwise.obj
expect 0 "rasterize a square" "$halden" rasterize square.obj square.npy --size 16 16
check "rasterize covers every cell" grep -q '^rasterize square.obj: 4 vertices, 2 triangles into 16x16 .*, 256 of 256 cells covered$' out.txt
expect 0 "rasterize into 16x8 with ids" "$halden" rasterize square.obj square.raw --size 16 8 --ids ids.raw
py "left half covered at 2 x 16 with two ids, right half empty" 'import sys; from grid_load import load
h, ids = load(sys.argv[1]), load(sys.argv[2])
left = [i for i in range(128) if i % 16 < 8]; right = [i for i in range(128) if i % 16 >= 8]
ok = all(abs(h[i] - 16) <= 16e-6 and 0 <= ids[i] < 1 for i in left) and len({ids[i] for i in left}) == 2
sys.exit(0 if ok and all(h[i] < -1e38 and ids[i] == -1 for i in right) else 1)' square.raw ids.raw
expect 0 "rasterize a counter-clockwise triangle" "$halden" rasterize corner.obj corner.raw --size 4 4
# Not mirrored: the right angle lies at the bottom left, so cells below the diagonal are covered.
py "the triangle is neither mirrored nor upside down" 'import sys; from grid_load import load
h = load(sys.argv[1])
ok = all(abs(h[r * 4 + c] - 4) <= 4e-6 for r in range(4) for c in range(4) if c < r)
sys.exit(0 if ok and all(h[r * 4 + c] < -1e38 for r in range(4) for c in range(4) if c > r) else 1)' corner.raw
expect 0 "rasterize a clockwise triangle" "$halden" rasterize clockwise.obj clockwise.raw --size 4 4
floats '\xff\xff\x7f\xff' 16 lowest.raw  # -FLT_MAX
check "the clockwise triangle is culled" cmp clockwise.raw lowest.raw
printf 'v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nf 1 2 3 4\n' >quad.obj
expect 0 "rasterize a quad" "$halden" rasterize quad.obj quad.npy --size 4 4
check "the quad is split into two triangles that cover the grid" \
    grep -q '^rasterize quad.obj: 4 vertices, 2 triangles into 4x4 .*, 16 of 16 cells covered$' out.txt
printf 'ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\nproperty float z\n%s\n%s\n' \
    'element face 1' 'property list uchar int vertex_indices' >corner.ply
printf 'end_header\n0 0 1\n1 0 1\n0 1 1\n3 0 1 2\n' >>corner.ply
expect 0 "rasterize the triangle from PLY" "$halden" rasterize corner.ply corner-ply.raw --size 4 4
check "PLY and OBJ give the same grid" cmp corner.raw corner-ply.raw
printf 'solid t\nfacet normal 0 0 1\nouter loop\nvertex 0 0 1\nvertex 1 0 1\nvertex 0 1 1\nendloop\nendfacet\nendsolid t\n' \
    >corner.stl
expect 0 "rasterize the triangle from STL" "$halden" rasterize corner.stl corner-stl.raw --size 4 4
check "STL and OBJ give the same grid" cmp corner.raw corner-stl.raw
printf 'v 0 0 0\nv 1 0 0\nv 1 1 0\nf 1 2 9\n' >bad-index.obj
expect 2 "rasterize a face with a bad index" "$halden" rasterize bad-index.obj out.npy --size 4 4
check "the bad index is named with the file" grep -q 'bad-index.obj: .*index out of range' err.txt
expect 1 "rasterize --size with one value" "$halden" rasterize square.obj out.npy --size 4
expect 2 "rasterize with an ids grid that cannot be written" "$halden" rasterize square.obj fresh.npy --size 4 4 \
    --ids no-such-dir/ids.npy
check "it creates no height grid" test ! -e fresh.npy
floats '\x00\x00\x40\x3f' 4 three-quarters.raw  # a 2x2 texture of 0.75
expect 0 "rasterize --displace --amplitude 0" "$halden" rasterize square.obj still.raw --size 16 8 --ids still-ids.raw \
    --displace three-quarters.raw --amplitude 0
check "amplitude 0 renders the plain heights bit for bit" cmp still.raw square.raw
check "and the plain ids" cmp still-ids.raw ids.raw
expect 0 "rasterize --displace a constant texture" "$halden" rasterize square.obj lifted.raw --size 4 4 \
    --displace three-quarters.raw --amplitude 2 --sharpness 1 --edge-length 0.5
check "the summary names the texture" grep -q ' into 4x4, displaced by three-quarters.raw (2x2) on ' out.txt
# 2 + 2 x (0.75 - 0.5) mesh units, times the fit's 4 cells per unit.
py "a constant texture lifts the square by amplitude x (value - midlevel)" 'import sys; from grid_load import load
sys.exit(0 if all(abs(h - 10) <= 10e-6 for h in load(sys.argv[1])) else 1)' lifted.raw
printf '\x00\x00\x80\x3f\x00\x00\x80\x3f\x00\x00\x00\x00\x00\x00\x00\x00' >top-row.raw  # rows 1 1 and 0 0
expect 0 "rasterize --displace a texture lit on its first row" "$halden" rasterize square.obj top.raw --size 4 4 \
    --displace top-row.raw
py "the texture's first row lies at the top of the picture" 'import sys; from grid_load import load
h = load(sys.argv[1])
sys.exit(0 if sum(h[:8]) > sum(h[8:]) + 4 else 1)' top.raw
for bad in "--sharpness 65" "--max-subdivision 0" "--edge-length 0" "--texture-size -1" "--amplitude nan"; do
    # shellcheck disable=SC2086
    expect 1 "rasterize --displace $bad" "$halden" rasterize square.obj out.npy --size 4 4 \
        --displace three-quarters.raw $bad
done
expect 1 "rasterize --amplitude without --displace" "$halden" rasterize square.obj out.npy --size 4 4 --amplitude 2
expect 2 "rasterize --displace a missing texture" "$halden" rasterize square.obj fresh.npy --size 4 4 \
    --displace no-such-texture.npy
check "it names the texture and creates no height grid" \
    bash -c 'grep -q no-such-texture.npy err.txt && test ! -e fresh.npy'

# --- bake-normals --------------------------------------------------------------------------------
expect 0 "bake-normals of a flat square against flat heights" "$halden" bake-normals square.obj square.npy flat.png \
    --fit --green flat-g.raw --blue flat-b.raw
check "bake-normals reports the mesh and the grid" \
    grep -q '^bake-normals square.obj: 4 vertices, 2 triangles against 16x16 (OpenGL) on ' out.txt
check "bake-normals writes a PNG" test -s flat.png
# The rendered heights carry the interpolation's rounding, a few ulps of 32.
py "a mesh that follows the heights bakes (0, 0, 1)" 'import sys; from grid_load import load
g, b = load(sys.argv[1]), load(sys.argv[2])
sys.exit(0 if all(abs(y) < 1e-5 for y in g) and all(abs(z - 1) < 1e-6 for z in b) else 1)' \
    flat-g.raw flat-b.raw
# Heights rising to the right and up the picture, under the same flat square.
printf 'v 0 0 0\nv 1 0 1\nv 1 1 1.5\nv 0 1 0.5\nf 1 2 3\nf 1 3 4\n' >tilted.obj
expect 0 "rasterize a tilted plane" "$halden" rasterize tilted.obj tilted.npy --size 16 16
expect 0 "bake-normals, OpenGL" "$halden" bake-normals square.obj tilted.npy gl.png --fit --red gl-r.raw \
    --green gl-g.raw
expect 0 "bake-normals, DirectX" "$halden" bake-normals square.obj tilted.npy dx.png --fit --directx --green dx-g.raw
py "the normal leans left and down the picture; DirectX negates green" 'import sys; from grid_load import load
r, g, d = load(sys.argv[1]), load(sys.argv[2]), load(sys.argv[3])
sys.exit(0 if all(x < 0 for x in r) and all(y < 0 for y in g) and [-y for y in g] == list(d) else 1)' \
    gl-r.raw gl-g.raw dx-g.raw
expect 1 "bake-normals to a grid file" "$halden" bake-normals square.obj square.npy out.npy
expect 1 "bake-normals --margin 65" "$halden" bake-normals square.obj square.npy out.png --margin 65
expect 2 "bake-normals of a face with a bad index" "$halden" bake-normals bad-index.obj square.npy out.png

# --- rasterize-points ----------------------------------------------------------------------------
# Four points on the corners of a unit square, heights 1 to 4: fitted into 2 x 2, one point a cell.
printf '# x y z\n0 0 1\n1,0,2 extra\n\n0 1 3\n1 1 4 # last\n' >corners.xyz
expect 0 "rasterize-points from text" "$halden" rasterize-points corners.xyz corners.raw --size 2 2 --counts n.raw
check "rasterize-points counts the points and cells" \
    grep -q '^rasterize-points corners.xyz: 4 points (4 inside) into 2x2 (mean, .*, 4 of 4 cells with a value$' out.txt
py "the top row holds the points of the largest y" 'import sys; from grid_load import load
h, n = load(sys.argv[1]), load(sys.argv[2]); s = 2 * (1 - 2 ** -20)
ok = all(abs(h[i] - z * s) <= 1e-5 for i, z in enumerate([3, 4, 1, 2]))
sys.exit(0 if ok and list(n) == [1, 1, 1, 1] else 1)' corners.raw n.raw
npy "{'descr': '<f8', 'fortran_order': False, 'shape': (4, 3), }" \
    '\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\xf0\x3f\0\0\0\0\0\0\xf0\x3f\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\x40'\
'\0\0\0\0\0\0\0\0\0\0\0\0\0\0\xf0\x3f\0\0\0\0\0\0\x08\x40\0\0\0\0\0\0\xf0\x3f\0\0\0\0\0\0\xf0\x3f\0\0\0\0\0\0\x10\x40' \
    corners.npy
expect 0 "rasterize-points from float64 .npy" "$halden" rasterize-points corners.npy corners-npy.raw --size 2 2
check ".npy and text give the same grid" cmp corners.raw corners-npy.raw
printf 'ply\nformat ascii 1.0\nelement vertex 4\nproperty float x\nproperty uchar red\nproperty float y\n%s\n' \
    'property double z' >corners.ply
printf 'end_header\n0 9 0 1\n1 9 0 2\n0 9 1 3\n1 9 1 4\n' >>corners.ply
expect 0 "rasterize-points from ascii PLY" "$halden" rasterize-points corners.ply corners-ply.raw --size 2 2
check "PLY and text give the same grid" cmp corners.raw corners-ply.raw
py "binary PLY and LAS give the same grid" 'import struct, subprocess, sys
pts = [(0, 0, 1), (1, 0, 2), (0, 1, 3), (1, 1, 4)]
head = b"ply\nformat binary_little_endian 1.0\nelement vertex 4\nproperty double x\nproperty float y\n"
open("bin.ply", "wb").write(head + b"property float z\nproperty int t\nend_header\n" +
                            b"".join(struct.pack("<dffi", x, y, z, 7) for x, y, z in pts))
las = bytearray(227); las[0:4] = b"LASF"; las[24:26] = bytes([1, 2])
struct.pack_into("<HIIBHI", las, 94, 227, 227, 0, 1, 28, 4)
struct.pack_into("<6d", las, 131, 0.5, 0.5, 0.25, 100.0, 200.0, 0.0)
recs = b"".join(struct.pack("<iii", int(x * 2), int(y * 2), int(z * 4)) + bytes(16) for x, y, z in pts)
open("c.las", "wb").write(bytes(las) + recs)
open("c.laz", "wb").write(bytes(las[:104]) + bytes([0x81]) + bytes(las[105:]) + recs)
run = lambda f, o: subprocess.run([sys.argv[1], "rasterize-points", f, o, "--size", "2", "2"], capture_output=True)
same = lambda o: open(o, "rb").read() == open("corners.raw", "rb").read()
laz = run("c.laz", "laz.raw")
ok = run("bin.ply", "ply.raw").returncode == 0 and same("ply.raw") and run("c.las", "las.raw").returncode == 0
sys.exit(0 if ok and same("las.raw") and laz.returncode == 2 and b"compressed" in laz.stderr else 1)' "$halden"
printf '0 0 1\n1 x 2\n' >bad.xyz
expect 2 "rasterize-points of a malformed line" "$halden" rasterize-points bad.xyz out.npy --size 2 2
check "the line is named" grep -q 'bad.xyz:2: expected x y z' err.txt
expect 1 "rasterize-points --mode median" "$halden" rasterize-points corners.xyz out.npy --size 2 2 --mode median
expect 0 "rasterize-points with fill, idw and a radius" "$halden" rasterize-points corners.xyz filled.raw --size 5 5 \
    --mode idw --radius 1 --fill pull-push --empty -7
py "every cell is filled within the points' range" 'import sys; from grid_load import load
h = load(sys.argv[1]); s = 5 * (1 - 2 ** -20)
sys.exit(0 if all(s - 1e-4 <= v <= 4 * s + 1e-4 for v in h) else 1)' filled.raw

# --- cellular ------------------------------------------------------------------------------------
expect 0 "cellular 40x24" "$halden" cellular cells.raw --size 40 24 --frequency 5 --result f2-f1 --octaves 2
check "cellular says what it rendered" grep -q '^cellular 40x24, f2-f1 euclidean, frequency 5, 2 octaves on ' out.txt
check "cellular writes 40 x 24 floats" test "$(stat -c %s cells.raw)" = 3840
# A regular lattice (jitter 0) four cells per feature: the first cell lies
# (3/8, 3/8, 1/2) from its feature, sqrt(34)/8 away.
expect 0 "cellular on a regular lattice" "$halden" cellular lattice.raw --size 8 8 --frequency 2 --jitter 0
py "the lattice distances" 'import sys, math; from grid_load import load
v = load(sys.argv[1]); sys.exit(0 if abs(v[0] - math.sqrt(34) / 8) < 1e-6 and v[0] == v[7] == v[63] else 1)' lattice.raw
expect 0 "cellular over a height grid" "$halden" cellular follows.npy --z-grid demo/terrain.npy --z-scale 0.01 \
    --result cell
expect 0 "cellular with a period" "$halden" cellular tiled.raw --size 80 20 --frequency 4 --period 2
py "a period repeats every 40 cells" 'import sys; from grid_load import load
v = load(sys.argv[1]); sys.exit(0 if all(v[r * 80 + c] == v[r * 80 + c + 40] for r in range(20) for c in range(40)) else 1)' \
    tiled.raw
expect 3 "cellular with a period that makes no whole tile" "$halden" cellular out.raw --size 80 20 --frequency 3 \
    --period 2
check "it names the period" grep -q 'period' err.txt
expect 1 "cellular without a size" "$halden" cellular out.raw
expect 1 "cellular with an unknown metric" "$halden" cellular out.raw --size 4 4 --metric cosine
expect 1 "cellular edge in the manhattan metric" "$halden" cellular out.raw --size 4 4 --result edge \
    --metric manhattan
expect 2 "cellular with a z grid of another shape" "$halden" cellular out.raw --size 4 4 --z-grid demo/terrain.npy
expect 0 "cellular --help" "$halden" cellular --help

# --- stamp ---------------------------------------------------------------------------------------
# Two 2 x 2 stamps in a 3-D .npy: ones and twos.
npy "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 2, 2), }" \
    "$(printf '\\x00\\x00\\x80\\x3f%.0s' 1 2 3 4)$(printf '\\x00\\x00\\x00\\x40%.0s' 1 2 3 4)" pair.npy
expect 0 "stamp five copies onto a flat grid" "$halden" stamp zeros.raw pair.npy stamped.raw --count 5 --absolute \
    --scale 1 1 --rotation 0 0 --falloff 0 --blend replace --ids stamp-ids.raw --instances stamps.json
check "stamp says what it placed" grep -q '^stamp 64x64, 5 copies of 2 stamps (replace) on ' out.txt
check "the instance list holds five copies" test "$(grep -c '"stamp": ' stamps.json)" = 5
# Constant stamps copied at scale 1 cover 2 x 2 cells each, with their own height.
py "the copies keep their heights and ids" 'import sys; from grid_load import load
h, ids = load(sys.argv[1]), load(sys.argv[2])
ok = all((v == 0) == (i == -1) and v in (0.0, 1.0, 2.0) and i in (-1, 0, 1, 2, 3, 4) for v, i in zip(h, ids))
sys.exit(0 if ok and 4 <= sum(v > 0 for v in h) <= 20 else 1)' stamped.raw stamp-ids.raw
expect 0 "stamp a grid cut into tiles, Poisson-disk spaced" "$halden" stamp demo/terrain.npy demo/terrain.npy \
    tiled.npy --tile 16 16 --spacing 6 --count 30 --blend smooth-min --bicubic
check "the tiles are sixteen stamps" grep -q ' of 16 stamps (smooth-min) ' out.txt
expect 0 "stamp with limits everywhere true" "$halden" stamp demo/terrain.npy pair.npy limited.npy \
    --slope 0 inf --elevation -inf inf --density ones.raw
expect 1 "stamp with an unknown blend" "$halden" stamp zeros.raw pair.npy out.npy --blend screen
expect 1 "stamp with --scale out of order" "$halden" stamp zeros.raw pair.npy out.npy --scale 2 1
expect 1 "stamp with a zero scale" "$halden" stamp zeros.raw pair.npy out.npy --scale 0 1
expect 2 "stamp tiles that do not divide the grid" "$halden" stamp zeros.raw demo/terrain.npy out.npy --tile 5 5
expect 2 "stamp with a missing stamp file" "$halden" stamp zeros.raw no-such-stamps.npy out.npy
expect 2 "stamp with a density of another shape" "$halden" stamp zeros.raw pair.npy out.npy --density half.raw
expect 3 "stamp spaced too finely for the grid" "$halden" stamp zeros.raw pair.npy out.npy --spacing 0.001
check "it names the spacing" grep -q 'spacing' err.txt
check "failed stamps wrote nothing" test ! -e out.npy
expect 0 "stamp --help" "$halden" stamp --help

# --- file formats ----------------------------------------------------------------------------
if [ -n "$gdal" ]; then
    printf 'ncols 4\nnrows 3\nxllcorner 500000\nyllcorner 4100000\ncellsize 30\nNODATA_value -9999\n' >in.asc
    printf '%s\n' '1 2 3 4' '5 -9999 7 8' '9 10 11 12' >>in.asc
    expect 0 "ASCII grid to GeoTIFF" "$halden" thermal-shape in.asc shaped.tif --strength 0
    expect 0 "GeoTIFF to ASCII grid" "$halden" flow shaped.tif back.asc --length 0
    check "the georeference and no-data value are carried" grep -qzE \
        'xllcorner +500000.*yllcorner +4100000.*cellsize +30.*NODATA_value +-9999' back.asc
    check "the no-data cell stays no-data" eval "sed -n 8p back.asc | awk '{ exit \$2 != -9999 }'"
    expect 0 "GeoTIFF to .npy" "$halden" thermal-shape shaped.tif same.npy --strength 0
    py "heights and the no-data value survive the GeoTIFF" 'import sys; from grid_load import load
sys.exit(0 if list(load(sys.argv[1])[:6]) == [1, 2, 3, 4, 5, -9999] else 1)' same.npy

    expect 0 "16-bit PNG out, its own range" "$halden" median demo/terrain.npy heights.png --iterations 0
    check "the PNG's range is stated" grep -q 'heights.png: heights .* to .* stored as 16-bit samples 0 to 65535' err.txt
    expect 0 "16-bit PNG back in" "$halden" median heights.png back.npy --iterations 0
    expect 0 "16-bit PNG out and in with --range" "$halden" median demo/terrain.npy ranged.png --iterations 0 --range -100 1100
    expect 0 "16-bit PNG in with --range" "$halden" median ranged.png ranged.npy --iterations 0 --range -100 1100
    py "PNG heights come back within half a step" 'import sys; from grid_load import load
a, b, c = load(sys.argv[1]), load(sys.argv[2]), load(sys.argv[3])
step = (max(a) - min(a)) / 65535
ranged = max(abs(min(max(x, -100), 1100) - y) for x, y in zip(a, c))  # spikes and pits clip
sys.exit(0 if max(abs(x - y) for x, y in zip(a, b)) <= step and ranged <= 1200 / 65535 else 1)' \
        demo/terrain.npy back.npy ranged.npy

    head -c $((1201 * 1201 * 2)) /dev/zero >N36W085.hgt
    expect 0 "an SRTM tile" "$halden" median N36W085.hgt tile.tif --iterations 0
    check "the tile is 1201x1201" grep -q '^median 1201x1201,' out.txt
    cp shaped.tif kept.tif
    expect 3 "a failed run keeps the old output" "$halden" blur demo/terrain.npy kept.tif --device no-such-device
    check "the old GeoTIFF is unchanged" cmp kept.tif shaped.tif
    expect 2 "an unknown output format" "$halden" blur demo/terrain.npy out.unknownformat
    check "it says so" grep -q 'unknown format' err.txt
    echo "not a raster" >garbage.tif
    expect 2 "a file GDAL cannot read" "$halden" blur garbage.tif out.npy
    if [ -r "$sample" ]; then
        expect 0 "the real model: shade" "$halden" shade "$sample" dem.png --height-scale 3
        check "it is 403x344" grep -q '^shade 403x344,' out.txt
        expect 0 "the real model: flow of a named array" "$halden" flow "$sample:elevation" dem-flow.tif
        expect 2 "a missing array" "$halden" flow "$sample:nothing" out.npy
    else
        echo "skip: the real model ($sample not installed)"
    fi
else
    expect 2 "GeoTIFF without GDAL" "$halden" blur demo/terrain.npy out.tif
    check "it says why" grep -q 'built without GDAL' err.txt
fi

# .npy: float16 in both byte orders (1, -2, 65504 and 2^-24, the least
# subnormal) is read exactly; a header dict that is not closed is refused.
printf '\x00\x00\x80\x3f\x00\x00\x00\xc0\x00\xe0\x7f\x47\x00\x00\x80\x33' >half-expected.raw
npy "{'descr': '<f2', 'fortran_order': False, 'shape': (2, 2), }" '\x00\x3c\x00\xc0\xff\x7b\x01\x00' half-le.npy
npy "{'descr': '>f2', 'fortran_order': False, 'shape': (2, 2), }" '\x3c\x00\xc0\x00\x7b\xff\x00\x01' half-be.npy
for order in le be; do
    expect 0 "a float16 .npy ($order)" "$halden" median "half-$order.npy" "half-$order.raw" --iterations 0
    check "its values come through exactly ($order)" cmp "half-$order.raw" half-expected.raw
done
npy "{'descr': '<f4', 'fortran_order': False, 'shape': (1, 1), " '\x00\x00\x80\x3f' open.npy
expect 2 "a .npy header without its closing brace" "$halden" blur open.npy open-out.npy
expect 2 "an output without an extension" "$halden" blur demo/terrain.npy no-extension
check "it names the file and the formats" grep -q 'no-extension: no extension .*name it \.npy, ' err.txt

# --- debris ---------------------------------------------------------------------------------------
# 20 rows of 32 cells: a plateau 40 high over the first 8 columns, then flat ground at 0.
for row in $(seq 20); do
    floats '\x00\x00\x20\x42' 8 plateau.part
    floats '\x00\x00\x00\x00' 24 ground.part
    cat plateau.part ground.part
done >cliff.raw
expect 0 "debris below a cliff" "$halden" debris cliff.raw rocky.raw --size 32 --debris laid.raw --ids ids.raw \
    --mode sync --density 2 --seed 2
check "debris says what it ran" grep -q '^debris 32x20, sync sharp rocks, source slope 40, friction angle 32 ' out.txt
py "rocks only raise the ground, below the cliff, and the maps agree" 'import sys; from grid_load import load
c, r, d, i = (load(p) for p in sys.argv[1:])
ok = all(b >= a for a, b in zip(c, r)) and any(b > a for a, b in zip(c, r))
ok = ok and all(d[k] == r[k] - c[k] and (i[k] < 0) == (r[k] == c[k]) for k in range(len(c)))
sys.exit(0 if ok and all(r[k] == c[k] for k in range(len(c)) if k % 32 < 7) else 1)' cliff.raw rocky.raw laid.raw ids.raw
expect 0 "debris, rounded rocks in batches" "$halden" debris cliff.raw rounded.raw --size 32 --shape rounded \
    --mode async --batches 4 --density 2 --seed 2
check "the rounded rocks differ" eval '! cmp -s rocky.raw rounded.raw'
expect 1 "debris with an unknown mode" "$halden" debris cliff.raw out.raw --size 32 --mode sideways
expect 1 "debris with an unknown shape" "$halden" debris cliff.raw out.raw --size 32 --shape cubic
expect 3 "debris with rocks wider than 64 cells" "$halden" debris cliff.raw out.raw --size 32 --size-max 100
check "the library names the field" grep -q 'size_max must be at most 64 cells' err.txt
check "it writes nothing" test ! -e out.raw
expect 2 "debris with a sources grid of another shape" "$halden" debris cliff.raw out.raw --size 32 \
    --sources demo/terrain.npy
expect 0 "debris --help" "$halden" debris --help

# --- sunlight -------------------------------------------------------------------------------------
floats '\x00\x00\x20\x41' 256 flat16.raw
expect 0 "sunlight of flat ground, relative" "$halden" sunlight flat16.raw lit.raw --size 16 --relative \
    --sun-hours hours.raw --sky-view view.raw
check "sunlight says what it ran" grep -q '^sunlight 16x16, latitude 45, days 172 to 172 every 1, 10-minute steps on ' out.txt
py "flat open ground is 1, sees the whole sky and the sun for over 15 hours" 'import sys; from grid_load import load
l, h, v = (load(p) for p in sys.argv[1:])
sys.exit(0 if all(abs(x - 1) < 1e-5 for x in l) and set(v) == {1.0} and all(15 < x < 16 for x in h) else 1)' \
    lit.raw hours.raw view.raw
expect 0 "sunlight over a season of a wide grid" "$halden" sunlight demo/terrain.npy season.npy --latitude -30 \
    --first-day 1 --last-day 90 --day-step 15 --time-step 30 --linke 4 --albedo 0.3 --elevation 800
expect 0 "sunlight, beam only through a plain transmittance" "$halden" sunlight demo/terrain.npy beam.npy \
    --transmittance 0.7 --no-diffuse --sky-directions 0
expect 1 "sunlight with --last-day before --first-day" "$halden" sunlight flat16.raw out.raw --size 16 \
    --first-day 100 --last-day 50
expect 1 "sunlight --sky-view without sky directions" "$halden" sunlight flat16.raw out.raw --size 16 \
    --sky-view view.raw --sky-directions 0
expect 1 "sunlight with a latitude past the pole" "$halden" sunlight flat16.raw out.raw --size 16 --latitude 91
check "it writes nothing" test ! -e out.raw
expect 0 "sunlight --help" "$halden" sunlight --help

# --- what every command shares ----------------------------------------------------------------
# Every operation command takes --no-progress and prints its times under --json.
printf 'v 0 0 2\nv 1 0 2\nv 0 1 2\nf 1 2 3\n' >tri.obj
runs=("median demo/terrain.npy j.npy" "thermal-shape demo/terrain.npy j.npy" "thermal-erode demo/terrain.npy j.npy"
    "erode demo/terrain.npy j.npy --rounds 1" "flow demo/terrain.npy j.npy"
    "shade demo/terrain.npy j.png" "blur demo/terrain.npy j.npy" "rasterize tri.obj j.npy --size 8 8"
    "demo --size 16 --out j --dem none")
for run in "${runs[@]}"; do
    # shellcheck disable=SC2086  # each entry is a command and its arguments
    expect 0 "${run%% *} --no-progress --json" "$halden" $run --no-progress --json
    check "${run%% *} --json gives its times" grep -q \
        '^{.*"timings": {"read": [0-9.]*, "run": [0-9.]*, "write": [0-9.]*, "total": [0-9.]*}}$' out.txt
done
check "rasterize --json keeps its counts" grep -q '"vertices": 3, "triangles": 1, "covered": ' <(
    "$halden" rasterize tri.obj j.npy --size 8 8 --json)
expect 1 "demo --size 0" "$halden" demo --size 0
expect 1 "devices with an argument" "$halden" devices extra
# Values as --x=V and negative numbers after an option; mistakes are one line.
expect 0 "--radius=3 and --range with negative heights" "$halden" median demo/terrain.npy m3.npy --radius=3 \
    --range -100 1100 --quiet
expect 1 "an option without its value" "$halden" median demo/terrain.npy out.npy --radius
check "it says so in one line" eval 'test "$(wc -l <err.txt)" = 1 && grep -qx "halden: error: --radius needs a value" err.txt'
expect 1 "--range with one value" "$halden" blur demo/terrain.npy out.npy --range 1
check "it asks for two" grep -qx 'halden: error: --range needs two values, given as --range LO HI' err.txt
expect 1 "an unknown option" "$halden" flow demo/terrain.npy out.npy --frobnicate
check "it names the option" grep -qx 'halden: error: unknown option --frobnicate (see --help)' err.txt
expect 1 "a missing OUT" "$halden" blur demo/terrain.npy
check "it names what is missing" grep -qx 'halden: error: blur needs IN and OUT (see halden blur --help)' err.txt
expect 1 "no command" "$halden"
check "the usage goes to stderr" eval 'test ! -s out.txt && grep -q "^usage: halden <command>" err.txt'
expect 0 "--help" "$halden" --help
check "--help lists every command" bash -c 'for c in devices median thermal-shape thermal-erode erode flow shade blur \
    rasterize cellular stamp debris color-transport sunlight dunes demo; do
    grep -q "^  $c " out.txt || exit 1; done'

# --- common failures and help ------------------------------------------------------------------
for command in median thermal-shape thermal-erode erode flow blur debris sunlight; do
    expect 2 "$command of a missing file" "$halden" "$command" no-such-file.npy out.npy
    expect 3 "$command on an unknown device" "$halden" "$command" demo/terrain.npy out.npy --device no-such-device
done
expect 2 "dunes of a missing file" "$halden" dunes no-such-file.npy demo/terrain.npy out.npy
check "failures wrote nothing" test ! -e out.npy
for command in devices median thermal-shape thermal-erode erode flow shade blur rasterize cellular stamp debris \
    color-transport sunlight dunes demo; do
    expect 0 "$command --help" "$halden" "$command" --help
    check "$command --help shows its usage" grep -q "^usage: halden $command" out.txt
done
expect 1 "an unknown command" "$halden" no-such-command

if [ "$failures" -ne 0 ]; then
    echo "$failures check(s) failed"
    exit 1
fi
echo "all checks passed"
