// SPDX-License-Identifier: Apache-2.0
// halden: lists devices, median-filters, blurs and thermally shapes grid
// files, computes flow maps, shades height grids into pictures, renders
// triangle meshes into height grids and runs a cross-device demo, all through
// the public C interface.
//
// Messages go through C stdio only: creating a queue points std::cerr at the
// null device.
#include "halden/halden.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <charconv>
#include <cfloat>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <signal.h>
#include <unistd.h>

#include "grid_io.hpp"
#include "obj.hpp"
#include "png.hpp"
#include "terrain.hpp"

namespace {

enum Exit { kOk = 0, kUsage = 1, kIo = 2, kDevice = 3, kDisagree = 4 };

const char kUsageText[] =
    "usage: halden <command> [options]\n"
    "\n"
    "commands:\n"
    "  devices        list the devices and their keys\n"
    "  median         median-filter a square height grid\n"
    "  thermal-shape  wear down the ridges (or fill the valleys) of a height grid\n"
    "  flow           map where water runs on a height grid\n"
    "  shade          light a height grid with sun and sky and write a PNG picture\n"
    "  blur           blur a square grid with an almost-Gaussian filter\n"
    "  rasterize      render a triangle mesh (Wavefront OBJ) into a height grid\n"
    "  demo           shape, flow-map and shade a generated terrain and a real one into pictures\n"
    "\n"
    "options of the grid commands:\n"
    "  --device KEY   cpu (the host device, default), gpu (the first CUDA device) or a\n"
    "                 key listed by 'halden devices'\n"
    "  --size W       width of a raw IN, whose height is then its value count / W;\n"
    "                 without it a raw IN must hold a square number of floats. Other\n"
    "                 formats bring their own shape, which W must then match\n"
    "  --range LO HI  the heights that a PNG's samples 0 and 65535 (255 in an 8-bit\n"
    "                 PNG) stand for, in IN and in OUT\n"
    "  --quiet        print nothing on success\n"
    "  --json         print the timing as one JSON object instead of a line\n"
    "  --verbose      also show the library's information messages\n"
    "  -h, --help     show the help of a command (halden <command> --help)\n"
    "\n"
    "files (the format follows the name's extension):\n"
    "  .npy               NumPy array, 2-D, any real dtype (read as float32); written\n"
    "                     as float32\n"
    "  .npz               NumPy archive, read only: its first 2-D array, or the one\n"
    "                     named NAME with FILE.npz:NAME\n"
    "  .raw .f32 .r32 .bin  little-endian float32 rows (see --size)\n"
    "  .tif .tiff         GeoTIFF (float32, deflate-compressed)\n"
    "  .png               16-bit greyscale: the samples span --range LO HI or, without\n"
    "                     it, OUT's least to greatest height (stated, and kept in\n"
    "                     OUT.png.aux.xml, which reading the file back applies)\n"
    "  .asc               ESRI ASCII grid     .hgt  SRTM tile (16-bit integers)\n"
    "  any other          read: any raster GDAL opens (band 1); written: the GDAL\n"
    "                     driver that claims the extension (.exr where GDAL has it)\n"
    "  All but .npy and raw need GDAL (built in: %s). The georeference and the\n"
    "  no-data value of IN are carried to OUT; no-data cells take the lowest height\n"
    "  while an operation runs and are no-data again in OUT. An existing OUT is\n"
    "  replaced only when the operation succeeded and every output of the command\n"
    "  (shade's and rasterize's extra grids too) was written.\n"
    "\n"
    "exit codes:\n"
    "  0  success\n"
    "  1  usage error (unknown command or option, bad option value, an OUT of the wrong\n"
    "     kind)\n"
    "  2  input/output error (unreadable or unwritable file, unknown format, a size that\n"
    "     does not fit, a grid of the wrong shape for the command, a malformed mesh)\n"
    "  3  device or operation error (no matching device, an error reported by the library,\n"
    "     not enough device memory, a run cancelled with Ctrl-C)\n"
    "  4  demo --device all: the devices' results differ\n";

const char kDevicesUsage[] =
    "usage: halden devices [--json]\n"
    "\n"
    "Lists the usable devices: index, name and key. A key selects its device in the\n"
    "other commands (--device KEY); the key \"cpu\" always selects the host device.\n"
    "\n"
    "  --json  print a JSON array of {\"name\", \"key\", \"backend\", \"type\"}\n";

const char kMedianUsage[] =
    "usage: halden median IN OUT [--radius R] [--iterations N] [--device KEY] [--size W]\n"
    "                            [--range LO HI] [--quiet] [--json]\n"
    "\n"
    "Median-filters the square height grid in IN on one device and writes it to OUT:\n"
    "spikes and pits go, edges stay.\n"
    "\n"
    "  --radius R      radius of the circular window, 1 to 8 (default 2)\n"
    "  --iterations N  number of passes (default 1)\n"
    "  --json          print {\"operation\", \"device\", \"size\", \"milliseconds\"}\n"
    "\n"
    "Heights above 1e8 (and +Inf) come out as about 1e8: the filter pads its windows\n"
    "with 1e8, which sorts below them. A warning on stderr counts the cells of IN\n"
    "that exceed 1e8.\n"
    "\n"
    "A grid that is not square exits 2. Throughput counts cells times iterations.\n"
    "File formats, common options and exit codes: see 'halden --help'.\n";

const char kThermalUsage[] =
    "usage: halden thermal-shape IN OUT [--mask M] [--amount A] [--strength T]\n"
    "                                   [--height-scale S] [--extent E] [--level-factor F]\n"
    "                                   [--device KEY] [--size W] [--range LO HI] [--quiet] [--json]\n"
    "\n"
    "Reshapes the height grid in IN on one device and writes it to OUT: cells are\n"
    "lowered by slope and curvature on every level of a pyramid, coarse to fine, and\n"
    "the result is blended with the input.\n"
    "\n"
    "  --mask M          a grid of IN's shape that scales the lowering per cell: 0\n"
    "                    keeps a cell, 1 shapes it fully (a PNG's samples span 0 to\n"
    "                    1); a mask of another shape exits 2\n"
    "  --amount A        lowering rate per pass (default -0.5): negative wears down\n"
    "                    ridges and peaks, zero or positive widens and fills valleys\n"
    "  --strength T      blend with the input: 0 returns IN, 1 the shaped field,\n"
    "                    past 1 exaggerates (default 1)\n"
    "  --height-scale S  world height of one height unit, > 0 (default 1); also\n"
    "                    lowers the pyramid depth\n"
    "  --extent E        world width of the whole grid, > 0 (default: from IN's\n"
    "                    georeference in metres, else the width in cells, so one cell\n"
    "                    is one height unit wide); larger values mean gentler slopes,\n"
    "                    so less is worn away\n"
    "  --level-factor F  scales the pyramid depth, > 0 (default 0.125: the coarsest\n"
    "                    level is about 16 cells wide)\n"
    "  --json            print {\"operation\", \"device\", \"width\", \"height\",\n"
    "                    \"milliseconds\"}\n"
    "\n"
    "Numbers must be finite and in plain decimal or exponent form. File formats,\n"
    "common options and exit codes: see 'halden --help'.\n";

const char kFlowUsage[] =
    "usage: halden flow IN OUT [--mask M] [--length L] [--accumulation A] [--seed S]\n"
    "                          [--device KEY] [--size W] [--range LO HI] [--quiet] [--json]\n"
    "                          [--no-progress]\n"
    "\n"
    "Computes the flow map of the height grid in IN on one device and writes it to\n"
    "OUT: the pits are filled, a particle starts from every cell and runs downhill,\n"
    "and each cell's value grows with the particles that crossed it (0 where none\n"
    "did). OUT has IN's shape; --range applies to IN only.\n"
    "\n"
    "  --mask M          a grid of IN's shape giving each cell's chance of starting a\n"
    "                    particle: 0 never, 1 always (a PNG's samples span 0 to 1); a\n"
    "                    mask of another shape exits 2\n"
    "  --length L        how far the long traces run, as a fraction of the width, at\n"
    "                    least 0 (default 0.5): 0 gives each a single visit, 1 lets\n"
    "                    rivers cross the whole map\n"
    "  --accumulation A  weight of the part of the map that grows linearly with the\n"
    "                    visits (default 1): 0 keeps only the saturating part, larger\n"
    "                    values make big rivers stand out\n"
    "  --seed S          seed of every random choice, 0 to 4294967295 (default 1); a\n"
    "                    seed gives the same map on every device\n"
    "  --json            print {\"operation\", \"device\", \"width\", \"height\",\n"
    "                    \"milliseconds\"}\n"
    "  --no-progress     draw no progress bar; one is drawn on stderr only when that\n"
    "                    is a terminal, and never with --quiet or --json\n"
    "\n"
    "Ctrl-C cancels the run: OUT is not written and the exit code is 3 (a second\n"
    "Ctrl-C stops at once). Numbers must be finite and in plain decimal or exponent\n"
    "form. File formats, common options and exit codes: see 'halden --help'.\n";

const char kShadeUsage[] =
    "usage: halden shade IN OUT.png [--sun-azimuth DEG] [--sun-elevation DEG] [--shadows N]\n"
    "                               [--sun-size DEG] [--ao N] [--hybrid-ao] [--no-shadows]\n"
    "                               [--no-ao] [--terrain-size S] [--height-scale H]\n"
    "                               [--exposure E] [--diffuse D] [--shadow S] [--ao-out A]\n"
    "                               [--device KEY] [--size W] [--range LO HI] [--quiet] [--json]\n"
    "\n"
    "Lights the height grid in IN with sun and sky on one device and writes the\n"
    "picture to OUT.png, an 8-bit sRGB PNG whose top row is the grid's first row.\n"
    "A cell's colour is (sun colour x the cosine of the sun on its slope x the share\n"
    "of the sun's disc not hidden by terrain + 0.4 x sky colour x its sky visibility)\n"
    "x exposure, with a sun colour of (1, 0.95, 0.85) and a sky colour of (0.6, 0.7,\n"
    "1). Shadows and sky visibility are traced over a square: a grid of another shape\n"
    "is extended to one by repeating its last row or column. No-data cells are black.\n"
    "\n"
    "  --sun-azimuth DEG    direction of the sun in degrees from the grid's +x axis\n"
    "                       (along a row: rightwards in the picture) towards +y (down\n"
    "                       the rows), finite (default 225: the upper left, as maps are lit)\n"
    "  --sun-elevation DEG  height of the sun above the horizon, 0 to 90 (default 35)\n"
    "  --shadows N          rings of shadow samples across the sun's disc, 0 to 64,\n"
    "                       giving 3N^2 + 3N + 1 samples (default 1: 7 samples); more\n"
    "                       give smoother shadow edges\n"
    "  --sun-size DEG       apparent diameter of the sun, at least 0 and below 180\n"
    "                       (default 0.53; 0 gives hard shadows)\n"
    "  --ao N               sky directions for sky visibility, 1 to 4096 (default 32)\n"
    "  --hybrid-ao          estimate sky visibility over a half-size grid instead of\n"
    "                       tracing it from every cell: about a quarter of the work\n"
    "  --no-shadows         no sun shadows: every cell gets the sun its slope faces\n"
    "  --no-ao              no sky visibility: it counts as 1 everywhere, about half\n"
    "                       of what open flat ground gets with it on\n"
    "  --terrain-size S     world width of the whole grid, > 0 (default: from IN's\n"
    "                       georeference in metres, else the width in cells, so one\n"
    "                       cell is one height unit wide)\n"
    "  --height-scale H     world height of one height unit, > 0 (default 1); above 1\n"
    "                       it exaggerates the relief\n"
    "  --exposure E         factor of the colour before it is clipped to the picture's\n"
    "                       range, > 0 (default 0.6, which keeps sunlit ground below\n"
    "                       white)\n"
    "  --diffuse D          also write the cosine of the sun on each cell, 0 to 1\n"
    "  --shadow S           also write the sun's visibility, 0 (hidden) to 1 (not\n"
    "                       with --no-shadows)\n"
    "  --ao-out A           also write the sky visibility: 4 x the mean cosine of the\n"
    "                       open sky directions, about 2 on open flat ground (not with\n"
    "                       --no-ao)\n"
    "  --json               print {\"operation\", \"device\", \"width\", \"height\",\n"
    "                       \"milliseconds\"}\n"
    "\n"
    "OUT must end in .png. Numbers must be finite and in plain decimal or exponent\n"
    "form. File formats, common options and exit codes: see 'halden --help'.\n";

const char kBlurUsage[] =
    "usage: halden blur IN OUT [--radius R] [--device KEY] [--size W] [--range LO HI]\n"
    "                          [--quiet] [--json]\n"
    "\n"
    "Blurs the square grid in IN on one device and writes it to OUT: two box filters\n"
    "along the rows and two along the columns, which together come close to a\n"
    "Gaussian. Each box gives full weight to the 2 trunc(R) + 1 cells around a cell\n"
    "and weight R - trunc(R) to the next cell either side, so the blur grows smoothly\n"
    "with R; cells past the edges repeat the edge cells, so a constant grid stays\n"
    "constant.\n"
    "\n"
    "  --radius R  radius of the boxes in cells, a positive number up to 16777216\n"
    "              (2^24; default 12: boxes 25 cells wide); larger radii blur more\n"
    "              at the same cost\n"
    "  --json      print {\"operation\", \"device\", \"size\", \"milliseconds\"}\n"
    "\n"
    "A grid that is not square, or more than 46340 cells wide, exits 2. Numbers must\n"
    "be finite and in plain decimal or exponent form. File formats, common options\n"
    "and exit codes: see 'halden --help'.\n";

const char kRasterizeUsage[] =
    "usage: halden rasterize MESH.obj OUT --size W H [--ids IDS] [--supersample]\n"
    "                                     [--device KEY] [--range LO HI] [--quiet] [--json]\n"
    "\n"
    "Renders the triangles of the Wavefront OBJ file MESH.obj, seen from above, into\n"
    "a W x H float32 height grid on one device and writes it to OUT: a cell gets the\n"
    "greatest height (z) of the triangles covering its centre, or -FLT_MAX\n"
    "(-3.4028235e38) where none does. The mesh is fitted into the grid: the x/y\n"
    "bounding box of its vertices is scaled by one factor, the largest that keeps it\n"
    "inside, with its smallest x on the first column and its largest y on the first\n"
    "row (y points up the picture), so the box fills the whole width or the whole\n"
    "height and the rest of the grid stays uncovered. Heights are z times the same\n"
    "factor, so they keep their proportion to the cells: a mesh 10 units wide in a\n"
    "grid 1000 cells wide comes back with its heights multiplied by 100.\n"
    "\n"
    "MESH.obj: 'v x y z' lines give the vertices and 'f' lines the faces, with 1-based\n"
    "vertex indices (negative ones count back from the last vertex read) in any of\n"
    "the forms i, i/t, i//n and i/t/n; other lines and '#' comments are skipped.\n"
    "Faces must be triangles: a face of 4 or more vertices exits 2 (triangulate the\n"
    "mesh first). Faces must be counter-clockwise seen from above (+z), the usual OBJ\n"
    "convention for a surface facing up; triangles wound the other way are culled\n"
    "(not drawn). A malformed line, such as a bad number or an index past the\n"
    "vertices, exits 2 naming the file and line.\n"
    "\n"
    "  --size W H     width and height of the grid in cells, 1 to 16384 each (1 to\n"
    "                 8192 with --supersample)\n"
    "  --ids IDS      also write the triangle-id grid: for each cell a value in [0, 1)\n"
    "                 fixed per triangle that names the triangle it took its height\n"
    "                 from, -1 where none covers it\n"
    "  --supersample  render at twice the width and height and keep the greatest\n"
    "                 height of each 2 x 2 block: thin triangles that miss the cells'\n"
    "                 centres still show\n"
    "  --json         print {\"operation\", \"device\", \"width\", \"height\", \"vertices\",\n"
    "                 \"triangles\", \"covered\", \"milliseconds\"}\n"
    "\n"
    "The summary line counts the covered cells. A PNG OUT needs --range, as the\n"
    "uncovered cells' -FLT_MAX would take all of its samples' span. File formats,\n"
    "common options and exit codes: see 'halden --help'.\n";

const char kDemoUsage[] =
    "usage: halden demo [--size N] [--out DIR] [--device KEY|all] [--dem FILE|none]\n"
    "                   [--quiet] [--json]\n"
    "\n"
    "Generates a deterministic fractal terrain of N x N cells with spikes and pits,\n"
    "heights 0 to 1000 m, read as a map 10 km wide, and runs on it, one after the\n"
    "other: the median filter (radius 3, 2 iterations) against the spikes and pits,\n"
    "the thermal shaper (amount -0.5, strength 1), the flow map of the shaped terrain\n"
    "(length 0.5, accumulation 1, seed 1) and its shading ('halden shade' defaults,\n"
    "heights three times over, as landscapes are gentle at map scale). Then shapes,\n"
    "flow-maps and shades a real elevation model the same way.\n"
    "Prints the time of every step and writes pictures into DIR.\n"
    "\n"
    "  --size N      side of the terrain (default 1024)\n"
    "  --out DIR     the folder for the results (default demo-output): relief.png\n"
    "                (the shaded relief), flow.png (the flow map over the relief),\n"
    "                terrain.npy, median.npy, thermal.npy and flow.npy, and for the\n"
    "                real model dem-relief.png and dem-flow.png\n"
    "  --device KEY  cpu (default), gpu, a key listed by 'halden devices', or all:\n"
    "                every step on every listed device, checking that their results\n"
    "                agree bit for bit\n"
    "  --dem FILE    the real elevation model, in any format halden reads (default:\n"
    "                the sample of Debian's python-matplotlib-data, a 3 arc-second\n"
    "                model of a fault zone in Tennessee, skipped when not installed;\n"
    "                a file without georeference is taken as cells 75 m wide);\n"
    "                none skips it\n"
    "  --quiet       print nothing on success\n"
    "  --json        print {\"devices\", \"out\", \"steps\": [{\"step\", \"device\",\n"
    "                \"milliseconds\"}], \"compared\", \"agree\"}\n"
    "\n"
    "Exits 0, 2 when a file cannot be read or written, 3 when a device failed, or\n"
    "else 4 when the devices' results differ.\n";

// The real elevation model the demo shades when Debian's
// python-matplotlib-data is installed: a 3 arc-second model of a fault zone
// in Tennessee, heights in metres. Its cells are about 75 m wide east-west
// (93 m north-south), and the file carries no georeference.
const char kSampleDem[] = "/usr/share/matplotlib/mpl-data/sample_data/jacksboro_fault_dem.npz";
constexpr float kSampleCellMetres = 75.0f;
// Landscapes are gentle at the scale of a whole map: the demo's pictures
// shade their heights three times over to bring the hills out.
constexpr float kPictureRelief = 3.0f;

// --- Library callbacks ----------------------------------------------------------

bool g_verbose = false;
bool g_quiet = false;  // --quiet: notes about files are not shown either
// Set by the error slot, which may run on a library thread, with the first
// text it got since the flag was cleared: the tool's own failure message
// says that text, so that one failure makes one line.
std::atomic<bool> g_error{false};
std::mutex g_error_mutex;
std::string g_error_text;

// The progress bar on stderr: whether to draw it, the percentage last drawn
// and whether the cursor still stands at the end of the bar's line.
bool g_bar_enabled = false;
int g_bar_shown = -1;
bool g_bar_open = false;

// Ends the bar's line, so that a message does not run on after the bar.
void break_bar_line() {
    if (!g_bar_open) return;
    std::fputc('\n', stderr);
    g_bar_open = false;
}

void draw_bar(float percent) {
    constexpr int kCells = 30;
    // Written so that NaN draws 0 rather than reaching the int conversion.
    const int whole = static_cast<int>(percent >= 0.0f ? std::min(percent, 100.0f) : 0.0f);
    if (whole == g_bar_shown && g_bar_open) return;  // redrawing the same text only costs terminal output
    g_bar_shown = whole;
    char cells[kCells + 1];
    const int filled = whole * kCells / 100;
    for (int i = 0; i < kCells; ++i) cells[i] = i < filled ? '#' : '.';
    cells[kCells] = '\0';
    std::fprintf(stderr, "\rflow [%s] %3d%%", cells, whole);
    std::fflush(stderr);
    g_bar_open = true;
}

void on_error(const char* text) {
    const std::lock_guard<std::mutex> lock(g_error_mutex);
    if (!g_error) g_error_text = text ? text : "";
    g_error = true;
}

// ": TEXT" for the library's error since the flag was last cleared, or ""
// when it reported none; clears the flag.
std::string library_reason() {
    const std::lock_guard<std::mutex> lock(g_error_mutex);
    const bool reported = g_error.exchange(false);
    return reported && !g_error_text.empty() ? ": " + g_error_text : std::string();
}

// Clears the flag before a library call. A text that no failure message took
// (a report from a call that then went on) is printed as it came.
void clear_library_error() {
    const std::string left = library_reason();
    if (left.empty()) return;
    break_bar_line();
    std::fprintf(stderr, "halden: error%s\n", left.c_str());
}
void on_warning(const char* text) {
    break_bar_line();
    std::fprintf(stderr, "halden: warning: %s\n", text ? text : "");
}
void on_info(const char* text) {
    if (!g_verbose) return;
    break_bar_line();
    std::fprintf(stderr, "halden: %s\n", text ? text : "");
}

const halden_callbacks kCallbacks = {nullptr, nullptr, on_info, on_warning, on_error, nullptr, nullptr, nullptr};

// Set by the SIGINT handler; a lock-free atomic is safe to store from one.
std::atomic<bool> g_interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the SIGINT handler needs a lock-free flag");

extern "C" void on_interrupt(int) { g_interrupted = true; }

// The flow run polls these: a nonzero return asks the library to stop.
int32_t on_flow_progress(float percent) {
    if (g_bar_enabled) draw_bar(percent);
    return g_interrupted ? 1 : 0;
}
int32_t on_flow_cancel() { return g_interrupted ? 1 : 0; }

const halden_callbacks kFlowCallbacks = {nullptr, on_flow_progress, on_info, on_warning,
                                         on_error, nullptr,          nullptr, on_flow_cancel};

// Turns Ctrl-C into a cancel request while it lives, then puts back what was
// there before (normally the default action, which ends the process).
class InterruptGuard {
  public:
    InterruptGuard() {
        g_interrupted = false;
        struct sigaction action {};
        action.sa_handler = on_interrupt;
        sigemptyset(&action.sa_mask);
        // SA_RESETHAND: the first Ctrl-C asks the library to stop at its next
        // poll, a second one ends the process as usual. SA_RESTART: system
        // calls in flight carry on rather than fail with EINTR.
        action.sa_flags = SA_RESETHAND | SA_RESTART;
        // A shell starts background jobs with SIGINT ignored; they stay immune.
        if (sigaction(SIGINT, nullptr, &previous_) == 0 && !(previous_.sa_flags & SA_SIGINFO) &&
            previous_.sa_handler == SIG_IGN)
            return;
        installed_ = sigaction(SIGINT, &action, &previous_) == 0;
    }
    ~InterruptGuard() {
        if (installed_) sigaction(SIGINT, &previous_, nullptr);
    }
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

  private:
    struct sigaction previous_ {};
    bool installed_ = false;
};

// --- Helpers --------------------------------------------------------------------

// Prints "halden: error: ..." and returns `code`, the exit status.
__attribute__((format(printf, 2, 3))) int fail(int code, const char* format, ...) {
    std::fputs("halden: error: ", stderr);
    va_list list;
    va_start(list, format);
    std::vfprintf(stderr, format, list);
    va_end(list);
    std::fputc('\n', stderr);
    return code;
}

struct Args {
    std::vector<std::string> positional;
    std::map<std::string, std::string> values;
    std::map<std::string, std::pair<std::string, std::string>> pairs;
    std::set<std::string> switches;
};

// Splits the arguments after the command; `valued` take a value ("--x V" or
// "--x=V"), `paired` two ("--x A B"), `flags` none. Returns kOk or kUsage
// after a message.
int parse_args(int argc, char** argv, const std::set<std::string>& valued, const std::set<std::string>& flags,
               Args& args, const std::set<std::string>& paired = {}) {
    for (int i = 2; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg.size() < 2 || arg[0] != '-') {
            args.positional.push_back(arg);
            continue;
        }
        const size_t eq = arg.find('=');
        const std::string name = arg.substr(0, eq);
        if (paired.count(name)) {
            if (eq != std::string::npos || i + 2 >= argc)
                return fail(kUsage, "%s needs two values, given as %s A B", name.c_str(), name.c_str());
            args.pairs[name] = {argv[i + 1], argv[i + 2]};
            i += 2;
        } else if (valued.count(name)) {
            if (eq != std::string::npos) {
                args.values[name] = arg.substr(eq + 1);
            } else if (i + 1 < argc) {
                args.values[name] = argv[++i];
            } else {
                return fail(kUsage, "%s needs a value", name.c_str());
            }
        } else if (flags.count(arg) || arg == "--verbose") {
            args.switches.insert(arg);
        } else {
            return fail(kUsage, "unknown option %s (see --help)", arg.c_str());
        }
    }
    g_verbose = args.switches.count("--verbose") != 0;
    g_quiet = args.switches.count("--quiet") != 0;
    return kOk;
}

// Reads option `name` as an integer in [low, high] into `out` when given.
bool number_option(const Args& args, const char* name, uint32_t low, uint32_t high, uint32_t& out) {
    const auto it = args.values.find(name);
    if (it == args.values.end()) return true;
    const std::string& text = it->second;
    uint64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || text.empty() || value < low || value > high) {
        fail(kUsage, "%s expects a whole number from %u to %u, got '%s'", name, low, high, text.c_str());
        return false;
    }
    out = static_cast<uint32_t>(value);
    return true;
}

std::string text_of(const char* s) { return s ? s : ""; }

// The key that names a record's device in CreateSyclQueue.
std::string device_key(const halden_device_record& r) {
    std::string key(std::size_t(halden_device_key(&r, nullptr, 0)), '\0');
    halden_device_key(&r, key.data(), key.size() + 1);
    return key;
}

std::string json_string(const std::string& s) {
    std::string out = "\"";
    for (const char c : s) {
        char escaped[8] = {c};
        if (c == '"' || c == '\\') std::snprintf(escaped, sizeof escaped, "\\%c", c);
        if (static_cast<unsigned char>(c) < 0x20) std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
        out += escaped;
    }
    return out + "\"";
}

// The device list, freed when it goes out of scope.
struct DeviceList {
    halden_device_record* records = nullptr;
    uint32_t count = 0;
    DeviceList() { GetDevices(&records, &count); }
    ~DeviceList() { FreeDevices(records); }
    DeviceList(const DeviceList&) = delete;
    DeviceList& operator=(const DeviceList&) = delete;
};

enum class Range { kAny, kPositive, kNonNegative };

// Reads option `name` as a finite float in `range` into `out` when given. The
// whole text must be the number, so a typo is a usage error rather than a
// silently different value.
bool float_option(const Args& args, const char* name, Range range, float& out) {
    const auto it = args.values.find(name);
    if (it == args.values.end()) return true;
    const std::string& text = it->second;
    float value = 0.0f;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool in_range = range == Range::kAny        ? true
                          : range == Range::kPositive ? value > 0.0f
                                                      : value >= 0.0f;
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || !std::isfinite(value) ||
        !in_range) {
        fail(kUsage, "%s expects a %s number, got '%s'", name,
             range == Range::kAny        ? "finite"
             : range == Range::kPositive ? "positive finite"
                                         : "finite, non-negative",
             text.c_str());
        return false;
    }
    out = value;
    return true;
}

struct Timing {
    double milliseconds;
    double mcells_per_second;
};

// Times `call()`, an export call that returns its status; an error reported
// through the error slot counts as a device error even when the call said 0.
template <class Call>
uint32_t timed(double work, Timing& timing, Call call) {
    clear_library_error();
    const auto start = std::chrono::steady_clock::now();
    const uint32_t status = call();
    timing.milliseconds = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    timing.mcells_per_second = timing.milliseconds > 0.0 ? work / (timing.milliseconds * 1e3) : 0.0;
    return status == HALDEN_STATUS_OK && g_error ? HALDEN_STATUS_DEVICE_ERROR : status;
}

// A line about a file worth knowing (how PNG samples map to heights), on
// stderr so that stdout stays the summary or the JSON.
void note(const std::string& text) {
    if (!text.empty() && !g_quiet) std::fprintf(stderr, "halden: %s\n", text.c_str());
}

// Reads IN. A raw file always comes out `width` wide, so a width that
// differs can only be another format's own shape.
int read_input(const std::string& path, const ReadOptions& options, Grid& grid) {
    std::string error, said;
    if (!read_grid(path, options, grid, error, said)) return fail(kIo, "%s", error.c_str());
    note(said);
    if (options.width != 0 && grid.width != options.width)
        return fail(kIo, "%s: --size %u does not match the file's shape of %ux%u", path.c_str(), options.width,
                    grid.width, grid.height);
    return kOk;
}

// Reads --range LO HI into `range` when given; false after a usage message.
bool range_option(const Args& args, HeightRange& range) {
    const auto it = args.pairs.find("--range");
    if (it == args.pairs.end()) return true;
    float lo = 0.0f, hi = 0.0f;
    const auto number = [](const std::string& text, float& value) {
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
        return !text.empty() && ec == std::errc() && end == text.data() + text.size() && std::isfinite(value);
    };
    if (!number(it->second.first, lo) || !number(it->second.second, hi) || !(lo < hi)) {
        fail(kUsage, "--range expects two finite numbers LO < HI, got '%s %s'", it->second.first.c_str(),
             it->second.second.c_str());
        return false;
    }
    range = std::make_pair(lo, hi);
    return true;
}

// Missing cells (NaN: a file's no-data cells) would spread through the
// kernels' neighbourhoods. They take the lowest height for the run and are
// missing again in the output. Returns their indices; sets `all` when no cell
// has a height.
std::vector<size_t> fill_missing(Grid& grid, bool& all) {
    std::vector<size_t> missing;
    float lowest = INFINITY;
    for (size_t i = 0; i < grid.cells.size(); ++i) {
        if (std::isnan(grid.cells[i]))
            missing.push_back(i);
        else
            lowest = std::min(lowest, grid.cells[i]);
    }
    all = missing.size() == grid.cells.size();
    for (const size_t i : missing) grid.cells[i] = lowest;
    return missing;
}

void mark_missing(Grid& grid, const std::vector<size_t>& missing) {
    for (const size_t i : missing) grid.cells[i] = NAN;
}

// The grid's width in metres when its georeference says: projected
// coordinates are taken as metres, degrees are converted at the grid's middle
// latitude. 0 when unknown.
double world_width(const Grid& grid) {
    const Georeference& geo = grid.georeference;
    if (!geo.has_transform || geo.projection.empty()) return 0.0;
    const double width = std::abs(geo.transform[1]) * grid.width;
    if (!geo.projection.starts_with("GEOGCS") && !geo.projection.starts_with("GEOGCRS")) return width;
    constexpr double kMetresPerDegree = 111320.0, kRadians = 3.14159265358979323846 / 180.0;
    const double latitude = geo.transform[3] + geo.transform[5] * grid.height / 2.0;
    return width * kMetresPerDegree * std::cos(latitude * kRadians);
}

// Reads IN for a command with its --size and --range, and fills its missing
// cells (their indices go to `missing`). Returns kOk, or kUsage or kIo after
// a message.
int read_heights(const Args& args, const std::string& path, Grid& grid, std::vector<size_t>& missing,
                 HeightRange& range) {
    ReadOptions options;
    if (!number_option(args, "--size", 1, UINT32_MAX, options.width) || !range_option(args, range)) return kUsage;
    options.range = range;
    if (const int code = read_input(path, options, grid); code != kOk) return code;
    bool all = false;
    missing = fill_missing(grid, all);
    if (all) return fail(kIo, "%s: no cell has a height (all are no-data or NaN)", path.c_str());
    return kOk;
}

// Opens a queue on `device` ("cpu", "gpu" or a key) and sets `key` to the key
// of the device it resolved to. Returns kOk, or kDevice after a message.
// Reads --device (default "cpu") into `device`; false after a usage message.
bool device_option(const Args& args, std::string& device) {
    const auto it = args.values.find("--device");
    device = it != args.values.end() ? it->second : "cpu";
    if (!device.empty()) return true;
    fail(kUsage, "--device needs a value");
    return false;
}

int open_queue(const std::string& device, halden_queue*& queue, std::string& key) {
    key = device;
    if (device == "gpu") {
        const DeviceList list;
        key.clear();
        for (uint32_t i = 0; i < list.count && key.empty(); ++i)
            if (text_of(list.records[i].backend) == "CUDA") key = device_key(list.records[i]);
        if (key.empty()) return fail(kDevice, "no CUDA device listed (see 'halden devices')");
    }
    clear_library_error();
    queue = CreateSyclQueue(key.c_str(), &kCallbacks);
    if (!queue) {
        const std::string reason = library_reason();
        if (!reason.empty()) return fail(kDevice, "cannot open a queue on '%s'%s", key.c_str(), reason.c_str());
        return fail(kDevice, "no device matches '%s' (see 'halden devices')", key.c_str());
    }
    if (halden_device_record* info = GetDeviceInfo(queue)) {  // names the device "cpu" or "gpu" resolved to
        key = device_key(*info);
        FreeDeviceInfo(info);
    }
    return kOk;
}

// Opens a queue on `device` (`key` becomes its device's key), runs
// `operation(queue)`, which returns an export status, and closes the queue,
// whose wait may report late failures too. Returns kOk, or kDevice after a
// message saying that `what` failed and OUT was not written.
template <class Operation>
int run_on_device(const std::string& device, std::string& key, const char* what, const std::string& out,
                  Operation operation) {
    halden_queue* queue = nullptr;
    if (const int code = open_queue(device, queue, key); code != kOk) return code;
    uint32_t status = operation(queue);
    DestroySyclQueue(queue);
    if (g_error) status = HALDEN_STATUS_DEVICE_ERROR;
    const std::string reason = library_reason();
    if (status == HALDEN_STATUS_OUT_OF_MEMORY)
        return fail(kDevice, "not enough device memory on %s for %s%s; %s not written", key.c_str(), what,
                    reason.c_str(), out.c_str());
    if (status != HALDEN_STATUS_OK)
        return fail(kDevice, "%s failed on %s%s; %s not written", what, key.c_str(), reason.c_str(), out.c_str());
    return kOk;
}

// Runs the filter in place and times the call alone; the device-error
// status when the library reported an error.
uint32_t run_median(halden_queue* queue, Grid& grid, uint32_t radius, uint32_t iterations, Timing& timing) {
    const halden_median_filter_parameters parameters = {grid.width, radius, iterations, 0};
    return timed(static_cast<double>(grid.cells.size()) * iterations, timing, [&] {
        MedianFilter(queue, grid.cells.data(), &parameters);
        return HALDEN_STATUS_OK;  // it reports failures through the error slot only
    });
}

// The thermal shaper and the flow simulation take int32 sides and at most
// 2^31 - 1 cells.
bool int32_grid_ok(const Grid& grid) {
    return grid.width <= INT32_MAX && grid.height <= INT32_MAX && grid.cells.size() <= size_t{INT32_MAX};
}

// Reads the mask M of `grid`, read from IN, into `mask`: a raw mask comes in
// rows of IN's width, other formats bring their own shape, which must be
// IN's. PNG samples span 0 to 1; missing cells count as 0. Returns kOk or kIo
// after a message.
int read_mask(const std::string& path, const std::string& in, const Grid& grid, Grid& mask) {
    std::string error, said;
    ReadOptions options;
    options.width = grid.width;
    options.range = std::make_pair(0.0f, 1.0f);
    if (!read_grid(path, options, mask, error, said)) return fail(kIo, "%s", error.c_str());
    if (mask.width != grid.width || mask.height != grid.height)
        return fail(kIo, "%s: the mask is %ux%u, but %s is %ux%u", path.c_str(), mask.width, mask.height, in.c_str(),
                    grid.width, grid.height);
    for (float& m : mask.cells)
        if (std::isnan(m)) m = 0.0f;
    return kOk;
}

// Shapes the grid in place (`mask` may be null) and times the call alone.
// Returns the export's status, or the device-error status when it said 0 but
// the error slot fired.
uint32_t run_thermal(halden_queue* queue, Grid& grid, const float* mask, halden_thermal_shaper_parameters parameters,
                     Timing& timing) {
    parameters.width = static_cast<int32_t>(grid.width);
    parameters.height = static_cast<int32_t>(grid.height);
    return timed(static_cast<double>(grid.cells.size()), timing, [&] {
        return ThermalShaper_Process(queue, grid.cells.data(), mask, &parameters, &kCallbacks);
    });
}

// Computes the flow map of `heights` into `map` and times the call alone.
// `map` is resized to the grid and, when `masked`, must already hold the mask
// (the library reads it, then overwrites it with the map); otherwise it is
// zero-filled. Returns the export's status, or the device-error status when it
// said 0 but the error slot fired.
uint32_t run_flow(halden_queue* queue, const Grid& heights, Grid& map, bool masked,
                  halden_flow_parameters parameters, const halden_callbacks* callbacks, Timing& timing) {
    parameters.width = static_cast<int32_t>(heights.width);
    parameters.height = static_cast<int32_t>(heights.height);
    map.width = heights.width;
    map.height = heights.height;
    if (!masked) map.cells.assign(heights.cells.size(), 0.0f);
    return timed(static_cast<double>(heights.cells.size()), timing, [&] {
        return FlowSimulation(queue, masked ? 0u : HALDEN_FLOW_NO_MASK, heights.cells.data(), map.cells.data(),
                              &parameters, callbacks);
    });
}

// What 'halden shade' lights with unless told otherwise.
struct Lighting {
    float azimuth = 225.0f;   // degrees from +x towards +y: light from the upper left
    float elevation = 35.0f;  // degrees above the horizon
    uint32_t rings = 1;       // shadow sample rings across the sun's disc
    float sun_size = 0.53f;   // degrees
    uint32_t sky_directions = 32;
    bool hybrid = false;
    bool shadows = true;
    bool sky_visibility = true;
    // The sky term is 0.4 x the sky visibility, which is 4 x the mean cosine
    // of the open sky (about 2.15 on open flat ground), so sunlit ground comes
    // to about 1.35 in blue and would mostly clip at exposure 1. At 0.6 no
    // cell of the demo terrain clips (its brightest reach 0.82), and even flat
    // ground under an overhead sun, the brightest case, stays at about 1.
    float exposure = 0.6f;
};

halden_lighting_parameters lighting_record(const Lighting& l, const Grid& heights, float terrain_size,
                                           float height_scale) {
    halden_lighting_parameters p{};
    p.width = static_cast<int32_t>(heights.width);
    p.height = static_cast<int32_t>(heights.height);
    p.terrain_size = terrain_size;
    p.height_scale = height_scale;
    constexpr double kRadians = 3.14159265358979323846 / 180.0;
    const double az = l.azimuth * kRadians, el = l.elevation * kRadians;
    p.sun_direction[0] = static_cast<float>(std::cos(el) * std::cos(az));
    p.sun_direction[1] = static_cast<float>(std::cos(el) * std::sin(az));
    p.sun_direction[2] = static_cast<float>(std::sin(el));
    p.shadow_samples = static_cast<int32_t>(l.rings);
    p.sun_size = l.sun_size;
    p.ao_mode = l.hybrid ? 1 : 0;
    p.ao_directions = p.hybrid_ao_directions = static_cast<int32_t>(l.sky_directions);
    p.light_scale = 1.0f;
    p.sun_strength = 1.0f;
    p.sky_strength = 0.4f;
    const float sun_color[3] = {1.0f, 0.95f, 0.85f}, sky_color[3] = {0.6f, 0.7f, 1.0f};
    std::memcpy(p.sun_color, sun_color, sizeof sun_color);
    std::memcpy(p.sky_color, sky_color, sizeof sky_color);
    p.exposure = l.exposure;
    p.sun_enabled = 1;
    p.sky_enabled = 1;
    p.shadows_enabled = l.shadows ? 1 : 0;
    p.ao_enabled = l.sky_visibility ? 1 : 0;
    p.ao_from_caller = 0;
    return p;
}

// "sun 225/35, 7 sun samples, 32 sky directions (traced)"
std::string describe_lighting(const Lighting& l) {
    char text[160];
    const uint32_t samples = 3 * l.rings * l.rings + 3 * l.rings + 1;
    char shadows[48] = "no shadows", sky[64] = "no sky visibility";
    if (l.shadows) std::snprintf(shadows, sizeof shadows, "%u sun sample%s", samples, samples == 1 ? "" : "s");
    if (l.sky_visibility)
        std::snprintf(sky, sizeof sky, "%u sky direction%s (%s)", l.sky_directions, l.sky_directions == 1 ? "" : "s",
                      l.hybrid ? "hybrid" : "traced");
    std::snprintf(text, sizeof text, "sun %g/%g, %s, %s", l.azimuth, l.elevation, shadows, sky);
    return text;
}

// Where Shade writes; a null plane is not returned.
struct ShadePlanes {
    float* diffuse = nullptr;
    float* shadow = nullptr;
    float* ao = nullptr;
    float* r = nullptr;
    float* g = nullptr;
    float* b = nullptr;
};

// Shades `heights` and times the call alone. Returns the export's status, or
// the device-error status when it said 0 but the error slot fired.
uint32_t run_shade(halden_queue* queue, const Grid& heights, const halden_lighting_parameters& parameters,
                   const ShadePlanes& out, Timing& timing) {
    return timed(static_cast<double>(heights.cells.size()), timing, [&] {
        return Shade(queue, heights.cells.data(), out.diffuse, out.shadow, out.ao, out.r, out.g, out.b, nullptr,
                     nullptr, nullptr, &parameters, &kCallbacks);
    });
}

// `grid` extended to a square by repeating its last row or column.
Grid pad_to_square(const Grid& grid) {
    const uint32_t side = std::max(grid.width, grid.height);
    Grid square{side, side, std::vector<float>(size_t{side} * side), grid.georeference};
    for (uint32_t y = 0; y < side; ++y) {
        const float* row = grid.cells.data() + size_t{std::min(y, grid.height - 1)} * grid.width;
        float* to = square.cells.data() + size_t{y} * side;
        std::copy_n(row, grid.width, to);
        std::fill(to + grid.width, to + side, row[grid.width - 1]);
    }
    return square;
}

// Shades `heights` of any shape into `planes`: red, green, blue, diffuse,
// shadow and sky visibility, each of the grid's shape, one after another.
// Shadows and sky visibility are traced over a square, so another shape is
// extended to one by repeating its last row or column and the results are
// cropped back. Cells listed in `missing` come out black. Returns the
// export's status.
uint32_t shade_grid(halden_queue* queue, const Grid& heights, const Lighting& lighting, float terrain_size,
                    float height_scale, const std::vector<size_t>& missing, std::vector<float>& planes,
                    Timing& timing) {
    const bool pad = (lighting.shadows || lighting.sky_visibility) && !heights.square();
    const Grid padded = pad ? pad_to_square(heights) : Grid{};
    const Grid& traced = pad ? padded : heights;
    const float traced_size = terrain_size * static_cast<float>(traced.width) / static_cast<float>(heights.width);
    const halden_lighting_parameters parameters = lighting_record(lighting, traced, traced_size, height_scale);
    const size_t traced_cells = traced.cells.size(), cells = heights.cells.size();
    std::vector<float> all(6 * traced_cells, 0.0f);
    float* const p = all.data();
    const ShadePlanes out{p + 3 * traced_cells, lighting.shadows ? p + 4 * traced_cells : nullptr,
                          lighting.sky_visibility ? p + 5 * traced_cells : nullptr,
                          p, p + traced_cells, p + 2 * traced_cells};
    const uint32_t status = run_shade(queue, traced, parameters, out, timing);
    planes.assign(6 * cells, 0.0f);
    for (size_t k = 0; k < 6; ++k)
        for (uint32_t y = 0; y < heights.height; ++y)
            std::copy_n(p + k * traced_cells + size_t{y} * traced.width, heights.width,
                        planes.begin() + k * cells + size_t{y} * heights.width);
    for (const size_t i : missing)
        for (size_t k = 0; k < 3; ++k) planes[k * cells + i] = 0.0f;
    return status;
}

// Linear colour to 8-bit sRGB: clamped to [0, 1] (NaN as 0), the sRGB
// transfer curve, rounded to nearest.
uint8_t srgb8(float linear) {
    const double c = linear > 0.0f ? std::min(static_cast<double>(linear), 1.0) : 0.0;
    const double encoded = c <= 0.0031308 ? 12.92 * c : 1.055 * std::pow(c, 1.0 / 2.4) - 0.055;
    return static_cast<uint8_t>(std::lround(encoded * 255.0));
}

// Writes the colour planes as a PNG, rows top to bottom in grid order,
// staged in `outputs`.
bool write_picture(PendingOutputs& outputs, const std::string& path, uint32_t width, uint32_t height,
                   const float* r, const float* g, const float* b, std::string& error) {
    const size_t cells = size_t{width} * height;
    std::vector<uint8_t> rgb(3 * cells);
    for (size_t i = 0; i < cells; ++i) {
        rgb[3 * i] = srgb8(r[i]);
        rgb[3 * i + 1] = srgb8(g[i]);
        rgb[3 * i + 2] = srgb8(b[i]);
    }
    return write_png_rgb(outputs, path, width, height, rgb, error);
}

// A command's output files. Each is written beside its target as it comes
// and commit() moves them all into place, so that a failure on any of them
// leaves every target as it was; the notes about the files wait for the
// commit too. The methods return kOk, or kIo after a message.
class Outputs {
  public:
    int grid(const std::string& path, const Grid& grid, const HeightRange& range) {
        std::string error, said;
        if (!write_grid(pending_, path, grid, range, error, said)) return fail(kIo, "%s", error.c_str());
        notes_.push_back(said);
        return kOk;
    }
    int picture(const std::string& path, uint32_t width, uint32_t height, const float* r, const float* g,
                const float* b) {
        std::string error;
        if (!write_picture(pending_, path, width, height, r, g, b, error)) return fail(kIo, "%s", error.c_str());
        return kOk;
    }
    int commit() {
        std::string error;
        if (!pending_.commit(error)) return fail(kIo, "%s", error.c_str());
        for (const std::string& said : notes_) note(said);
        return kOk;
    }

  private:
    PendingOutputs pending_;
    std::vector<std::string> notes_;
};

// Writes OUT, the only output of a command. Returns kOk or kIo after a
// message.
int write_output(const std::string& path, const Grid& grid, const HeightRange& range) {
    Outputs outputs;
    if (const int code = outputs.grid(path, grid, range); code != kOk) return code;
    return outputs.commit();
}

// The demo's runs: every step on each of its devices, timed, and the
// devices' results compared bit for bit.
class DemoRun {
  public:
    DemoRun(std::vector<std::string> keys, bool quiet, bool json)
        : keys_(std::move(keys)), quiet_(quiet), json_(json) {}

    // Runs `operation(queue, grid, timing)`, which works on `grid`, a copy of
    // `input`, on every device, and returns the first device's result (no
    // cells when every device failed).
    template <class Operation>
    Grid run(const std::string& step, const Grid& input, double mcells, Operation operation) {
        std::vector<Grid> results;
        for (const std::string& key : keys_) {
            halden_queue* queue = CreateSyclQueue(key.c_str(), &kCallbacks);
            Grid grid = input;
            Timing timing{};
            uint32_t status = queue ? operation(queue, grid, timing) : HALDEN_STATUS_DEVICE_ERROR;
            DestroySyclQueue(queue);
            if (g_error) status = HALDEN_STATUS_DEVICE_ERROR;  // waiting for the queue may report late failures too
            const std::string reason = library_reason();
            if (status != HALDEN_STATUS_OK) {
                failed_ = true;
                fail(kDevice, "%s failed on %s%s%s", step.c_str(), key.c_str(),
                     !queue                                   ? " (no queue)"
                     : status == HALDEN_STATUS_OUT_OF_MEMORY ? " (not enough device memory)"
                                                              : "",
                     reason.c_str());
                continue;
            }
            record(step, key, timing.milliseconds, timing.milliseconds > 0.0 ? mcells / (timing.milliseconds * 1e3) : 0.0);
            results.push_back(std::move(grid));
        }
        for (size_t i = 1; i < results.size(); ++i) {
            const bool same = results[i].cells == results[0].cells ||
                              std::memcmp(results[i].cells.data(), results[0].cells.data(),
                                          results[0].cells.size() * sizeof(float)) == 0;
            if (!same && !quiet_ && !json_) std::printf("  %s: the devices' results differ\n", step.c_str());
            agree_ = agree_ && same;
        }
        compared_ = compared_ || results.size() > 1;
        return results.empty() ? Grid{} : std::move(results[0]);
    }

    // Records a step's time; host steps have no device and no rate.
    void record(const std::string& step, const std::string& device, double milliseconds, double rate = 0.0) {
        steps_.push_back({step, device, milliseconds});
        if (quiet_ || json_) return;
        std::printf("  %-28s %10.1f ms", step.c_str(), milliseconds);
        if (rate > 0.0) std::printf("  %8.1f Mcells/s", rate);
        if (keys_.size() > 1 && !device.empty()) std::printf("  on %s", device.c_str());
        std::printf("\n");
    }

    void say(const std::string& line) const {
        if (!quiet_ && !json_) std::printf("%s\n", line.c_str());
    }

    // Exit status: 3 when a device failed, else 4 when results differ.
    int status() const { return failed_ ? kDevice : agree_ ? kOk : kDisagree; }

    void print_json(const std::string& out) const {
        std::printf("{\"devices\": [");
        for (size_t i = 0; i < keys_.size(); ++i) std::printf("%s%s", i ? ", " : "", json_string(keys_[i]).c_str());
        std::printf("], \"out\": %s, \"steps\": [", json_string(out).c_str());
        for (size_t i = 0; i < steps_.size(); ++i)
            std::printf("%s{\"step\": %s, \"device\": %s, \"milliseconds\": %.3f}", i ? ", " : "",
                        json_string(steps_[i].name).c_str(),
                        steps_[i].device.empty() ? "null" : json_string(steps_[i].device).c_str(),
                        steps_[i].milliseconds);
        std::printf("], \"compared\": %s, \"agree\": %s}\n", compared_ ? "true" : "false",
                    agree_ ? "true" : "false");
    }

  private:
    struct Step {
        std::string name, device;
        double milliseconds;
    };
    std::vector<std::string> keys_;
    bool quiet_, json_;
    std::vector<Step> steps_;
    bool failed_ = false, agree_ = true, compared_ = false;
};

// The flow map over the shaded relief: water blue, opaque from a third of
// the map's saturating range up. `planes` are shade_grid's.
bool write_flow_picture(PendingOutputs& outputs, const std::string& path, const Grid& flow,
                        const std::vector<float>& planes, std::string& error) {
    const size_t cells = flow.cells.size();
    std::vector<float> rgb(planes.begin(), planes.begin() + 3 * cells);
    const float water[3] = {0.02f, 0.18f, 0.75f};
    for (size_t i = 0; i < cells; ++i) {
        const float f = flow.cells[i];
        const float a = f > 0.0f ? std::min(3.0f * f, 1.0f) : 0.0f;
        for (size_t k = 0; k < 3; ++k) rgb[k * cells + i] = rgb[k * cells + i] * (1.0f - a) + water[k] * a;
    }
    return write_picture(outputs, path, flow.width, flow.height, rgb.data(), rgb.data() + cells,
                         rgb.data() + 2 * cells, error);
}

// Reads a path option into `path` (empty when not given); false after a
// message when it is given empty.
bool path_option(const Args& args, const char* name, std::string& path) {
    const auto it = args.values.find(name);
    path = it == args.values.end() ? std::string() : it->second;
    if (it != args.values.end() && path.empty()) {
        fail(kUsage, "%s needs a value", name);
        return false;
    }
    return true;
}

// --- Commands ---------------------------------------------------------------------

int cmd_devices(int argc, char** argv) {
    Args args;
    if (parse_args(argc, argv, {}, {"--json"}, args) != kOk) return kUsage;
    if (!args.positional.empty()) return fail(kUsage, "devices takes no arguments, got '%s'", args.positional[0].c_str());
    const DeviceList list;
    if (args.switches.count("--json")) {
        std::printf("[");
        for (uint32_t i = 0; i < list.count; ++i) {
            const halden_device_record& r = list.records[i];
            std::printf("%s{\"name\": %s, \"key\": %s, \"backend\": %s, \"type\": %lld}", i ? ", " : "",
                        json_string(text_of(r.name)).c_str(), json_string(device_key(r)).c_str(),
                        json_string(text_of(r.backend)).c_str(), static_cast<long long>(r.type));
        }
        std::printf("]\n");
        return kOk;
    }
    int width = 4;
    for (uint32_t i = 0; i < list.count; ++i)
        width = std::max(width, static_cast<int>(text_of(list.records[i].name).size()));
    std::printf("%-5s  %-*s  %s\n", "index", width, "name", "key");
    for (uint32_t i = 0; i < list.count; ++i)
        std::printf("%5u  %-*s  %s\n", i, width, text_of(list.records[i].name).c_str(),
                    device_key(list.records[i]).c_str());
    if (list.count == 0) std::printf("(no devices listed)\n");
    std::printf("\nThe key \"cpu\" always selects the host device.\n");
    return kOk;
}

int cmd_median(int argc, char** argv) {
    Args args;
    if (parse_args(argc, argv, {"--radius", "--iterations", "--device", "--size"}, {"--quiet", "--json"}, args,
                   {"--range"}) != kOk)
        return kUsage;
    if (args.positional.size() != 2) return fail(kUsage, "median needs IN and OUT (see halden median --help)");
    uint32_t radius = 2, iterations = 1;
    if (!number_option(args, "--radius", 1, 8, radius) || !number_option(args, "--iterations", 0, 1000000, iterations))
        return kUsage;
    std::string device;
    if (!device_option(args, device)) return kUsage;
    const std::string& in = args.positional[0];
    const std::string& out = args.positional[1];

    Grid grid;
    std::vector<size_t> missing;
    HeightRange range;
    if (const int code = read_heights(args, in, grid, missing, range); code != kOk) return code;
    // The filter's record has a single side.
    if (!grid.square())
        return fail(kIo, "%s: the median filter needs a square grid, this one is %ux%u", in.c_str(), grid.width,
                    grid.height);
    // The library pads its sorting network with 1e8, so larger heights sort
    // past the padding and the median of their windows comes out near 1e8.
    constexpr float kMedianPadding = 1e8f;
    const auto above = std::count_if(grid.cells.begin(), grid.cells.end(), [](float h) { return h > kMedianPadding; });
    if (above > 0)
        std::fprintf(stderr, "halden: warning: %s: %zu %s 1e8; the median filter maps such values to about 1e8\n",
                     in.c_str(), static_cast<size_t>(above), above == 1 ? "cell exceeds" : "cells exceed");

    std::string key;
    Timing timing{};
    if (const int code = run_on_device(device, key, "the median filter", out,
                                       [&](halden_queue* q) { return run_median(q, grid, radius, iterations, timing); });
        code != kOk)
        return code;
    mark_missing(grid, missing);
    if (const int code = write_output(out, grid, range); code != kOk) return code;

    if (args.switches.count("--quiet")) return kOk;
    if (args.switches.count("--json")) {
        std::printf("{\"operation\": \"median\", \"device\": %s, \"size\": %u, \"milliseconds\": %.3f}\n",
                    json_string(key).c_str(), grid.width, timing.milliseconds);
    } else {
        std::printf("median %ux%u, radius %u, %u iteration(s) on %s: %.3f ms, %.1f Mcells/s\n", grid.width,
                    grid.height, radius, iterations, key.c_str(), timing.milliseconds, timing.mcells_per_second);
    }
    return kOk;
}

int cmd_thermal(int argc, char** argv) {
    Args args;
    if (parse_args(argc, argv,
                   {"--mask", "--amount", "--strength", "--height-scale", "--extent", "--level-factor", "--device",
                    "--size"},
                   {"--quiet", "--json"}, args, {"--range"}) != kOk)
        return kUsage;
    if (args.positional.size() != 2)
        return fail(kUsage, "thermal-shape needs IN and OUT (see halden thermal-shape --help)");
    float amount = -0.5f, strength = 1.0f, height_scale = 1.0f, extent = 0.0f, level_factor = 0.125f;
    if (!float_option(args, "--amount", Range::kAny, amount) ||
        !float_option(args, "--strength", Range::kAny, strength) ||
        !float_option(args, "--height-scale", Range::kPositive, height_scale) ||
        !float_option(args, "--extent", Range::kPositive, extent) ||
        !float_option(args, "--level-factor", Range::kPositive, level_factor))
        return kUsage;
    std::string device;
    if (!device_option(args, device)) return kUsage;
    std::string mask_path;
    if (!path_option(args, "--mask", mask_path)) return kUsage;
    const std::string& in = args.positional[0];
    const std::string& out = args.positional[1];

    Grid grid;
    std::vector<size_t> missing;
    HeightRange range;
    if (const int code = read_heights(args, in, grid, missing, range); code != kOk) return code;
    if (!int32_grid_ok(grid))
        return fail(kIo, "%s: the thermal shaper takes at most 2^31 - 1 cells, this grid is %ux%u", in.c_str(),
                    grid.width, grid.height);
    Grid mask;
    if (!mask_path.empty())
        if (const int code = read_mask(mask_path, in, grid, mask); code != kOk) return code;
    if (!args.values.count("--extent")) {
        const double metres = world_width(grid);
        extent = static_cast<float>(metres > 0.0 ? metres : grid.width);
    }

    const halden_thermal_shaper_parameters parameters = {0, 0, height_scale, extent, level_factor, strength, amount, 0};
    std::string key;
    Timing timing{};
    if (const int code = run_on_device(device, key, "the thermal shaper", out,
                                       [&](halden_queue* q) {
                                           return run_thermal(q, grid, mask.cells.empty() ? nullptr : mask.cells.data(),
                                                              parameters, timing);
                                       });
        code != kOk)
        return code;
    mark_missing(grid, missing);
    if (const int code = write_output(out, grid, range); code != kOk) return code;

    if (args.switches.count("--quiet")) return kOk;
    if (args.switches.count("--json")) {
        std::printf("{\"operation\": \"thermal-shape\", \"device\": %s, \"width\": %u, \"height\": %u, "
                    "\"milliseconds\": %.3f}\n",
                    json_string(key).c_str(), grid.width, grid.height, timing.milliseconds);
    } else {
        std::printf("thermal-shape %ux%u, amount %g, strength %g, %g wide on %s: %.3f ms, %.1f Mcells/s\n",
                    grid.width, grid.height, amount, strength, extent, key.c_str(), timing.milliseconds,
                    timing.mcells_per_second);
    }
    return kOk;
}

int cmd_flow(int argc, char** argv) {
    Args args;
    if (parse_args(argc, argv, {"--mask", "--length", "--accumulation", "--seed", "--device", "--size"},
                   {"--quiet", "--json", "--no-progress"}, args, {"--range"}) != kOk)
        return kUsage;
    if (args.positional.size() != 2) return fail(kUsage, "flow needs IN and OUT (see halden flow --help)");
    uint32_t seed = 1;
    float length = 0.5f, accumulation = 1.0f;
    if (!float_option(args, "--length", Range::kNonNegative, length) ||
        !float_option(args, "--accumulation", Range::kAny, accumulation) ||
        !number_option(args, "--seed", 0, UINT32_MAX, seed))
        return kUsage;
    std::string device;
    if (!device_option(args, device)) return kUsage;
    std::string mask_path;
    if (!path_option(args, "--mask", mask_path)) return kUsage;
    const bool quiet = args.switches.count("--quiet") != 0, json = args.switches.count("--json") != 0;
    const std::string& in = args.positional[0];
    const std::string& out = args.positional[1];

    Grid heights;
    std::vector<size_t> missing;
    HeightRange range;
    if (const int code = read_heights(args, in, heights, missing, range); code != kOk) return code;
    if (!int32_grid_ok(heights))
        return fail(kIo, "%s: the flow simulation takes at most 2^31 - 1 cells, this grid is %ux%u", in.c_str(),
                    heights.width, heights.height);
    Grid map;  // the mask, when given, which the run then overwrites with the map
    if (!mask_path.empty())
        if (const int code = read_mask(mask_path, in, heights, map); code != kOk) return code;

    halden_queue* queue = nullptr;
    std::string key;
    if (const int code = open_queue(device, queue, key); code != kOk) return code;
    const halden_flow_parameters parameters = {0, 0, length, accumulation, seed};
    Timing timing{};
    uint32_t status = HALDEN_STATUS_OK;
    std::string reason;  // the library's, when it reported an error
    bool interrupted = false;
    {
        const InterruptGuard guard;
        g_bar_enabled = !quiet && !json && !args.switches.count("--no-progress") && isatty(STDERR_FILENO);
        if (g_bar_enabled) draw_bar(0.0f);  // the first report comes only after the pits are filled
        status = run_flow(queue, heights, map, !mask_path.empty(), parameters, &kFlowCallbacks, timing);
        DestroySyclQueue(queue);
        if (g_error) status = HALDEN_STATUS_DEVICE_ERROR;  // waiting for the queue may report late failures too
        reason = library_reason();
        interrupted = g_interrupted;
        if (g_bar_enabled && status == HALDEN_STATUS_OK && !interrupted) draw_bar(100.0f);
        break_bar_line();
        g_bar_enabled = false;
    }
    // A Ctrl-C that came too late to stop the run still means: keep OUT as it is.
    if (interrupted) return fail(kDevice, "cancelled; %s not written", out.c_str());
    if (status == HALDEN_STATUS_OUT_OF_MEMORY)
        return fail(kDevice, "not enough device memory on %s for a %ux%u grid%s; %s not written", key.c_str(),
                    heights.width, heights.height, reason.c_str(), out.c_str());
    if (status != HALDEN_STATUS_OK)
        return fail(kDevice, "the flow simulation failed on %s%s; %s not written", key.c_str(), reason.c_str(),
                    out.c_str());
    map.georeference = heights.georeference;
    mark_missing(map, missing);
    // --range maps IN's samples; the map's own values span something else.
    if (const int code = write_output(out, map, {}); code != kOk) return code;

    if (quiet) return kOk;
    if (json) {
        std::printf("{\"operation\": \"flow\", \"device\": %s, \"width\": %u, \"height\": %u, "
                    "\"milliseconds\": %.3f}\n",
                    json_string(key).c_str(), heights.width, heights.height, timing.milliseconds);
    } else {
        std::printf("flow %ux%u, length %g, accumulation %g, seed %u on %s: %.3f ms, %.1f Mcells/s\n", heights.width,
                    heights.height, length, accumulation, seed, key.c_str(), timing.milliseconds,
                    timing.mcells_per_second);
    }
    return kOk;
}

int cmd_shade(int argc, char** argv) {
    Args args;
    if (parse_args(argc, argv,
                   {"--sun-azimuth", "--sun-elevation", "--shadows", "--sun-size", "--ao", "--terrain-size",
                    "--height-scale", "--exposure", "--diffuse", "--shadow", "--ao-out", "--device", "--size"},
                   {"--hybrid-ao", "--no-shadows", "--no-ao", "--quiet", "--json"}, args, {"--range"}) != kOk)
        return kUsage;
    if (args.positional.size() != 2) return fail(kUsage, "shade needs IN and OUT.png (see halden shade --help)");
    Lighting lighting;
    float terrain_size = 0.0f, height_scale = 1.0f;
    if (!float_option(args, "--sun-azimuth", Range::kAny, lighting.azimuth) ||
        !float_option(args, "--sun-elevation", Range::kAny, lighting.elevation) ||
        !number_option(args, "--shadows", 0, 64, lighting.rings) ||
        !float_option(args, "--sun-size", Range::kNonNegative, lighting.sun_size) ||
        !number_option(args, "--ao", 1, 4096, lighting.sky_directions) ||
        !float_option(args, "--terrain-size", Range::kPositive, terrain_size) ||
        !float_option(args, "--height-scale", Range::kPositive, height_scale) ||
        !float_option(args, "--exposure", Range::kPositive, lighting.exposure))
        return kUsage;
    if (!(lighting.elevation >= 0.0f && lighting.elevation <= 90.0f))
        return fail(kUsage, "--sun-elevation expects a number from 0 to 90, got '%s'",
                    args.values.at("--sun-elevation").c_str());
    if (!(lighting.sun_size < 180.0f))
        return fail(kUsage, "--sun-size expects a number of at least 0 and below 180, got '%s'",
                    args.values.at("--sun-size").c_str());
    lighting.hybrid = args.switches.count("--hybrid-ao") != 0;
    lighting.shadows = args.switches.count("--no-shadows") == 0;
    lighting.sky_visibility = args.switches.count("--no-ao") == 0;
    std::string diffuse_path, shadow_path, ao_path;
    if (!path_option(args, "--diffuse", diffuse_path) || !path_option(args, "--shadow", shadow_path) ||
        !path_option(args, "--ao-out", ao_path))
        return kUsage;
    // With a switch off the library computes nothing to write.
    if (!shadow_path.empty() && !lighting.shadows) return fail(kUsage, "--shadow has nothing to write with --no-shadows");
    if (!ao_path.empty() && !lighting.sky_visibility) return fail(kUsage, "--ao-out has nothing to write with --no-ao");
    std::string device;
    if (!device_option(args, device)) return kUsage;
    const std::string& in = args.positional[0];
    const std::string& out = args.positional[1];
    if (!has_png_extension(out)) return fail(kUsage, "%s: OUT must be a .png file", out.c_str());

    Grid heights;
    std::vector<size_t> missing;
    HeightRange range;
    if (const int code = read_heights(args, in, heights, missing, range); code != kOk) return code;
    const size_t side = std::max(heights.width, heights.height);  // of the square that shadows are traced over
    if (!int32_grid_ok(heights) || side * side > INT32_MAX)
        return fail(kIo, "%s: shading takes at most 2^31 - 1 cells, this grid is %ux%u", in.c_str(), heights.width,
                    heights.height);
    if (!args.values.count("--terrain-size")) {
        const double metres = world_width(heights);
        terrain_size = static_cast<float>(metres > 0.0 ? metres : heights.width);
    }
    std::vector<float> planes;
    std::string key;
    Timing timing{};
    if (const int code = run_on_device(device, key, "shading", out,
                                       [&](halden_queue* q) {
                                           return shade_grid(q, heights, lighting, terrain_size, height_scale, missing,
                                                             planes, timing);
                                       });
        code != kOk)
        return code;

    const size_t cells = heights.cells.size();
    Outputs outputs;
    if (const int code = outputs.picture(out, heights.width, heights.height, planes.data(), planes.data() + cells,
                                         planes.data() + 2 * cells);
        code != kOk)
        return code;
    const std::string* const paths[] = {&diffuse_path, &shadow_path, &ao_path};
    for (int i = 0; i < 3; ++i) {
        if (paths[i]->empty()) continue;
        const float* plane = planes.data() + (3 + i) * cells;
        Grid grid{heights.width, heights.height, std::vector<float>(plane, plane + cells), heights.georeference};
        mark_missing(grid, missing);
        if (const int code = outputs.grid(*paths[i], grid, {}); code != kOk) return code;
    }
    if (const int code = outputs.commit(); code != kOk) return code;

    if (args.switches.count("--quiet")) return kOk;
    if (args.switches.count("--json")) {
        std::printf("{\"operation\": \"shade\", \"device\": %s, \"width\": %u, \"height\": %u, "
                    "\"milliseconds\": %.3f}\n",
                    json_string(key).c_str(), heights.width, heights.height, timing.milliseconds);
    } else {
        std::printf("shade %ux%u, %s on %s: %.3f ms, %.1f Mcells/s\n", heights.width, heights.height,
                    describe_lighting(lighting).c_str(), key.c_str(), timing.milliseconds, timing.mcells_per_second);
    }
    return kOk;
}

int cmd_blur(int argc, char** argv) {
    Args args;
    if (parse_args(argc, argv, {"--radius", "--device", "--size"}, {"--quiet", "--json"}, args, {"--range"}) != kOk)
        return kUsage;
    if (args.positional.size() != 2) return fail(kUsage, "blur needs IN and OUT (see halden blur --help)");
    float radius = 12.0f;
    if (!float_option(args, "--radius", Range::kPositive, radius)) return kUsage;
    // The library refuses radii past 2^24, beyond which a float no longer
    // holds every whole number of cells. Checked on the text's own value, as
    // 16777217 rounds to 2^24 in float.
    constexpr double kMaxBlurRadius = 16777216.0;
    if (const auto it = args.values.find("--radius"); it != args.values.end()) {
        double exact = 0.0;
        std::from_chars(it->second.data(), it->second.data() + it->second.size(), exact);
        if (!(exact <= kMaxBlurRadius))
            return fail(kUsage, "--radius expects a positive number of at most 16777216 (2^24), got '%s'",
                        it->second.c_str());
    }
    std::string device;
    if (!device_option(args, device)) return kUsage;
    const std::string& in = args.positional[0];
    const std::string& out = args.positional[1];

    Grid grid;
    std::vector<size_t> missing;
    HeightRange range;
    if (const int code = read_heights(args, in, grid, missing, range); code != kOk) return code;
    if (!grid.square())
        return fail(kIo, "%s: the blur needs a square grid, this one is %ux%u", in.c_str(), grid.width, grid.height);
    // The export's own limit, caught here because it is the input's shape
    // that is wrong, not the device.
    constexpr uint32_t kMaxBlurSide = 46340;
    if (grid.width > kMaxBlurSide)
        return fail(kIo, "%s: the blur takes grids of at most %u x %u cells, this one is %ux%u", in.c_str(),
                    kMaxBlurSide, kMaxBlurSide, grid.width, grid.height);

    std::string key;
    Timing timing{};
    if (const int code = run_on_device(device, key, "the blur", out,
                                       [&](halden_queue* q) {
                                           return timed(static_cast<double>(grid.cells.size()), timing, [&] {
                                               return Blur(q, grid.cells.data(), static_cast<int32_t>(grid.width),
                                                           radius, &kCallbacks);
                                           });
                                       });
        code != kOk)
        return code;
    mark_missing(grid, missing);
    if (const int code = write_output(out, grid, range); code != kOk) return code;

    if (args.switches.count("--quiet")) return kOk;
    if (args.switches.count("--json")) {
        std::printf("{\"operation\": \"blur\", \"device\": %s, \"size\": %u, \"milliseconds\": %.3f}\n",
                    json_string(key).c_str(), grid.width, timing.milliseconds);
    } else {
        std::printf("blur %ux%u, radius %g on %s: %.3f ms, %.1f Mcells/s\n", grid.width, grid.height, radius,
                    key.c_str(), timing.milliseconds, timing.mcells_per_second);
    }
    return kOk;
}

// Reads the two values of --size W H, each in [1, limit].
bool size_pair_option(const Args& args, uint32_t limit, uint32_t& width, uint32_t& height) {
    const auto it = args.pairs.find("--size");
    if (it == args.pairs.end()) {
        fail(kUsage, "--size W H is required");
        return false;
    }
    uint32_t* const targets[2] = {&width, &height};
    const std::string* const texts[2] = {&it->second.first, &it->second.second};
    for (int i = 0; i < 2; ++i) {
        const std::string& text = *texts[i];
        uint64_t value = 0;
        const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value < 1 || value > limit) {
            fail(kUsage, "--size expects two whole numbers from 1 to %u, got '%s %s'", limit, it->second.first.c_str(),
                 it->second.second.c_str());
            return false;
        }
        *targets[i] = static_cast<uint32_t>(value);
    }
    return true;
}

int cmd_rasterize(int argc, char** argv) {
    Args args;
    if (parse_args(argc, argv, {"--ids", "--device"}, {"--supersample", "--quiet", "--json"}, args,
                   {"--size", "--range"}) != kOk)
        return kUsage;
    if (args.positional.size() != 2)
        return fail(kUsage, "rasterize needs MESH.obj and OUT (see halden rasterize --help)");
    const bool supersample = args.switches.count("--supersample") != 0;
    // The library's side limit, which covers the doubled grid of a supersampled render.
    const uint32_t max_side = supersample ? 8192 : 16384;
    uint32_t width = 0, height = 0;
    if (!size_pair_option(args, max_side, width, height)) return kUsage;
    std::string ids_path;
    if (!path_option(args, "--ids", ids_path)) return kUsage;
    std::string device;
    if (!device_option(args, device)) return kUsage;
    HeightRange range;
    if (!range_option(args, range)) return kUsage;
    const std::string& in = args.positional[0];
    const std::string& out = args.positional[1];

    ObjMesh mesh;
    std::string error;
    if (!read_obj(in, mesh, error)) return fail(kIo, "%s", error.c_str());
    if (mesh.triangle_count() == 0) return fail(kIo, "%s: no faces to render", in.c_str());
    if (mesh.triangle_count() > UINT32_MAX)
        return fail(kIo, "%s: %zu triangles, more than the 2^32 - 1 a mesh may have", in.c_str(),
                    mesh.triangle_count());

    // The grid's rows run down the picture while OBJ's y runs up it. Negating
    // y turns the mesh over so that its top lands on the first row, and that
    // same flip turns counter-clockwise faces into the winding the library
    // draws.
    float x0 = INFINITY, x1 = -INFINITY, y0 = INFINITY, y1 = -INFINITY;
    for (size_t i = 0; i < mesh.vertices.size(); i += 3) {
        x0 = std::min(x0, mesh.vertices[i]);
        x1 = std::max(x1, mesh.vertices[i]);
        y0 = std::min(y0, mesh.vertices[i + 1]);
        y1 = std::max(y1, mesh.vertices[i + 1]);
        mesh.vertices[i + 1] = -mesh.vertices[i + 1];
    }
    // In double: the spans of float coordinates may overflow float.
    const double span_x = static_cast<double>(x1) - x0, span_y = static_cast<double>(y1) - y0;
    double scale = 1.0;
    if (span_x > 0.0 && span_y > 0.0)
        scale = std::min(width / span_x, height / span_y);
    else if (span_x > 0.0)
        scale = width / span_x;
    else if (span_y > 0.0)
        scale = height / span_y;
    if (!std::isfinite(static_cast<float>(scale)))
        return fail(kIo, "%s: the mesh spans %g x %g, too little to scale to %ux%u cells in float32", in.c_str(),
                    span_x, span_y, width, height);

    halden_mesh_rasterizer_parameters parameters{};
    parameters.width = static_cast<int32_t>(width);
    parameters.height = static_cast<int32_t>(height);
    parameters.centre[0] = x0;
    parameters.centre[1] = -y1;
    parameters.centre[2] = 0.0f;
    parameters.scale = static_cast<float>(scale);
    parameters.depth_divisor = 1.0f;
    parameters.shift = 0.0f;
    parameters.supersample = supersample ? 1 : 0;
    const halden_mesh record = {mesh.vertices.data(), static_cast<uint32_t>(mesh.vertex_count()), 0,
                                mesh.triangles.data(), static_cast<uint32_t>(mesh.triangle_count()), 0};

    Grid heights{width, height, std::vector<float>(size_t{width} * height), {}};
    Grid ids{width, height, {}, {}};
    if (!ids_path.empty()) ids.cells.resize(heights.cells.size());

    std::string key;
    Timing timing{};
    // The record comes back with the rendered (doubled) size when
    // supersampling; the grids stay width x height.
    if (const int code = run_on_device(device, key, "rasterizing", out,
                                       [&](halden_queue* q) {
                                           return timed(static_cast<double>(mesh.triangle_count()), timing, [&] {
                                               return MeshRasterizer_RenderMesh(
                                                   q, &record, heights.cells.data(),
                                                   ids_path.empty() ? nullptr : ids.cells.data(), &parameters,
                                                   &kCallbacks);
                                           });
                                       });
        code != kOk)
        return code;
    Outputs outputs;
    if (const int code = outputs.grid(out, heights, range); code != kOk) return code;
    if (!ids_path.empty())
        if (const int code = outputs.grid(ids_path, ids, {}); code != kOk) return code;
    if (const int code = outputs.commit(); code != kOk) return code;

    const size_t covered = static_cast<size_t>(
        std::count_if(heights.cells.begin(), heights.cells.end(), [](float h) { return h > -FLT_MAX; }));
    if (args.switches.count("--quiet")) return kOk;
    if (covered == 0)
        std::fprintf(stderr, "halden: warning: no triangle covers a cell's centre; faces wound clockwise seen "
                             "from above (+z) are culled\n");
    if (args.switches.count("--json")) {
        std::printf("{\"operation\": \"rasterize\", \"device\": %s, \"width\": %u, \"height\": %u, \"vertices\": %zu, "
                    "\"triangles\": %zu, \"covered\": %zu, \"milliseconds\": %.3f}\n",
                    json_string(key).c_str(), width, height, mesh.vertex_count(), mesh.triangle_count(), covered,
                    timing.milliseconds);
    } else {
        std::printf("rasterize %s: %zu vert%s, %zu triangle%s into %ux%u%s on %s: %.3f ms, %.1f Mtriangles/s, "
                    "%zu of %zu cells covered\n",
                    in.c_str(), mesh.vertex_count(), mesh.vertex_count() == 1 ? "ex" : "ices", mesh.triangle_count(),
                    mesh.triangle_count() == 1 ? "" : "s", width, height,
                    supersample ? " (supersampled)" : "", key.c_str(), timing.milliseconds, timing.mcells_per_second,
                    covered, heights.cells.size());
    }
    return kOk;
}

int cmd_demo(int argc, char** argv) {
    Args args;
    if (parse_args(argc, argv, {"--size", "--out", "--device", "--dem"}, {"--quiet", "--json"}, args) != kOk)
        return kUsage;
    if (!args.positional.empty()) return fail(kUsage, "demo takes no arguments, got '%s'", args.positional[0].c_str());
    uint32_t size = 1024;
    if (!number_option(args, "--size", 1, 32768, size)) return kUsage;
    const std::string dir = args.values.count("--out") ? args.values.at("--out") : std::string("demo-output");
    const std::string dem = args.values.count("--dem") ? args.values.at("--dem") : std::string(kSampleDem);
    if (dir.empty() || dem.empty()) return fail(kUsage, "--out and --dem need a value");
    std::string device;
    if (!device_option(args, device)) return kUsage;
    const bool quiet = args.switches.count("--quiet") != 0, json = args.switches.count("--json") != 0;

    std::vector<std::string> keys;
    if (device == "all") {
        const DeviceList list;
        for (uint32_t i = 0; i < list.count; ++i) keys.push_back(device_key(list.records[i]));
        if (keys.empty()) return fail(kDevice, "no devices listed");
    } else {
        halden_queue* queue = nullptr;
        std::string key;
        if (const int code = open_queue(device, queue, key); code != kOk) return code;
        DestroySyclQueue(queue);
        keys.push_back(key);
    }
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) return fail(kIo, "%s: %s", dir.c_str(), ec.message().c_str());

    DemoRun demo(keys, quiet, json);
    std::string error;
    const auto now = [] { return std::chrono::steady_clock::now(); };
    const auto since = [&](std::chrono::steady_clock::time_point start) {
        return std::chrono::duration<double, std::milli>(now() - start).count();
    };
    // Each file replaces its old version at once: a demo run's files need not
    // stand or fall together.
    const auto write = [&](const std::string& name, const auto& writer) {
        const auto start = now();
        PendingOutputs outputs;
        if (!writer(outputs, dir + "/" + name) || !outputs.commit(error)) return false;
        demo.record("write " + name, "", since(start));
        return true;
    };
    if (keys.size() == 1) demo.say("on " + keys[0] + ", results in " + dir + "/");
    else demo.say("on " + std::to_string(keys.size()) + " devices, compared bit for bit; results in " + dir + "/");

    // The terrain's relief is 0 to 1000 m at any N while its features scale
    // with the grid, so it is read as a map of fixed width: heights in metres
    // over 10 km, which gives steep-hill slopes at every N. The peaks then lose
    // about a quarter of their height: visible, yet the landscape keeps its
    // shape. One metre per cell would turn the same relief into cliffs.
    constexpr float kExtentMetres = 10000.0f;
    constexpr uint32_t kRadius = 3, kIterations = 2;
    const halden_flow_parameters flow = {0, 0, 0.5f, 1.0f, 1};
    const Lighting lighting;
    // Runs thermal shaping, flow and shading on `heights` (`extent` metres
    // wide; shaded with heights times `relief`) and writes PREFIXrelief.png
    // and PREFIXflow.png; false when a file cannot be written.
    const auto landscape = [&](const std::string& prefix, const Grid& heights, float extent, float relief,
                               const std::vector<size_t>& missing, Grid* shaped_out, Grid* flow_out) {
        const halden_thermal_shaper_parameters thermal = {0, 0, 1.0f, extent, 0.125f, 1.0f, -0.5f, 0};
        const double mcells = static_cast<double>(heights.cells.size());
        Grid shaped = demo.run(prefix + "thermal shaping", heights, mcells, [&](halden_queue* q, Grid& g, Timing& t) {
            return run_thermal(q, g, nullptr, thermal, t);
        });
        if (shaped.cells.empty()) return true;
        shaped.georeference = heights.georeference;
        Grid map = demo.run(prefix + "flow", shaped, mcells, [&](halden_queue* q, Grid& g, Timing& t) {
            const Grid source = g;
            return run_flow(q, source, g, false, flow, &kCallbacks, t);
        });
        Grid planes_grid = demo.run(prefix + "shading", shaped, mcells, [&](halden_queue* q, Grid& g, Timing& t) {
            std::vector<float> planes;
            const uint32_t status = shade_grid(q, g, lighting, extent, relief, missing, planes, t);
            g.cells = std::move(planes);
            return status;
        });
        if (planes_grid.cells.empty()) return true;
        const auto picture = [&](PendingOutputs& outputs, const std::string& path) {
            const float* p = planes_grid.cells.data();
            const size_t cells = shaped.cells.size();
            return write_picture(outputs, path, shaped.width, shaped.height, p, p + cells, p + 2 * cells, error);
        };
        if (!write(prefix + "relief.png", picture)) return false;
        if (!map.cells.empty()) {
            map.width = shaped.width;
            map.height = shaped.height;
            mark_missing(map, missing);
            if (!write(prefix + "flow.png", [&](PendingOutputs& outputs, const std::string& path) {
                    return write_flow_picture(outputs, path, map, planes_grid.cells, error);
                }))
                return false;
        }
        if (shaped_out) *shaped_out = std::move(shaped);
        if (flow_out) *flow_out = std::move(map);
        return true;
    };
    auto start = now();
    const Grid terrain = make_terrain(size);
    demo.record("generate terrain " + std::to_string(size) + "x" + std::to_string(size), "", since(start));
    const Grid median = demo.run("median filter", terrain, static_cast<double>(terrain.cells.size()) * kIterations,
                                 [&](halden_queue* q, Grid& g, Timing& t) {
                                     return run_median(q, g, kRadius, kIterations, t);
                                 });
    Grid shaped, map;
    if (!median.cells.empty() && !landscape("", median, kExtentMetres, kPictureRelief, {}, &shaped, &map))
        return fail(kIo, "%s", error.c_str());
    const std::pair<const char*, const Grid*> grids[] = {
        {"terrain.npy", &terrain}, {"median.npy", &median}, {"thermal.npy", &shaped}, {"flow.npy", &map}};
    for (const auto& [name, grid] : grids) {
        if (grid->cells.empty()) continue;
        std::string said;
        if (!write(name, [&](PendingOutputs& outputs, const std::string& path) {
                return write_grid(outputs, path, *grid, {}, error, said);
            }))
            return fail(kIo, "%s", error.c_str());
    }

    // A real elevation model, read as users read theirs.
    if (dem != "none") {
        Grid heights;
        std::string said;
        start = now();
        if (!read_grid(dem, ReadOptions{}, heights, error, said)) {
            // The default sample is optional; a model asked for is not.
            if (args.values.count("--dem")) return fail(kIo, "%s", error.c_str());
            demo.say("no real elevation model: " + error +
                     (std::filesystem::exists(dem) ? "" : " (apt-get install python-matplotlib-data)"));
        } else {
            demo.record("read " + std::filesystem::path(dem).filename().string(), "", since(start));
            bool all = false;
            const std::vector<size_t> missing = fill_missing(heights, all);
            if (all) return fail(kIo, "%s: no cell has a height", dem.c_str());
            const double metres = world_width(heights);
            const float extent = static_cast<float>(metres > 0.0 ? metres : kSampleCellMetres * heights.width);
            char line[200];
            std::snprintf(line, sizeof line, "%s: %ux%u cells, %.1f km wide", dem.c_str(),
                          heights.width, heights.height, extent / 1000.0);
            demo.say(line);
            if (!landscape("dem-", heights, extent, kPictureRelief, missing, nullptr, nullptr))
                return fail(kIo, "%s", error.c_str());
        }
    }
    if (json) demo.print_json(dir);
    return demo.status();
}

}  // namespace

int main(int argc, char** argv) {
    struct Command {
        const char* name;
        int (*run)(int, char**);
        const char* usage;
    };
    static const Command kCommands[] = {
        {"devices", cmd_devices, kDevicesUsage},
        {"median", cmd_median, kMedianUsage},
        {"thermal-shape", cmd_thermal, kThermalUsage},
        {"flow", cmd_flow, kFlowUsage},
        {"shade", cmd_shade, kShadeUsage},
        {"blur", cmd_blur, kBlurUsage},
        {"rasterize", cmd_rasterize, kRasterizeUsage},
        {"demo", cmd_demo, kDemoUsage}};

    const char* const gdal = have_gdal() ? "yes" : "no";
    if (argc < 2) {
        std::fprintf(stderr, kUsageText, gdal);
        return kUsage;
    }
    const std::string first = argv[1];
    if (first == "-h" || first == "--help" || first == "help") {
        std::printf(kUsageText, gdal);
        return kOk;
    }
    for (const Command& command : kCommands) {
        if (first != command.name) continue;
        for (int i = 2; i < argc; ++i) {
            if (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0) {
                std::fputs(command.usage, stdout);
                return kOk;
            }
        }
        return command.run(argc, argv);
    }
    std::fprintf(stderr, "halden: unknown command '%s'\n\n", first.c_str());
    std::fprintf(stderr, kUsageText, gdal);
    return kUsage;
}
