#!/usr/bin/env bash
# Installs what is missing, builds (CUDA when nvcc is found), runs the tests
# (GoogleTest, the tool's checks, the Python package's pytest suite),
# then builds and runs them again under AddressSanitizer and UBSan (CPU only).
set -euo pipefail
cd "$(dirname "$0")/.."

packages="cmake ninja-build g++ libgtest-dev libbenchmark-dev libgdal-dev libcli11-dev libpng-dev libassimp-dev
          python3-numpy python3-pytest python3-pip python3-venv python3-setuptools python3-wheel python-matplotlib-data
          python3-xarray python3-rioxarray python3-dask python3-distributed"
if ! dpkg -s $packages >/dev/null 2>&1; then
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $packages
fi
export PATH="$PATH:/usr/local/cuda/bin"
jobs=$(nproc)

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DHALDEN_CUDA=AUTO
cmake --build build -j "$jobs"
ctest --test-dir build --output-on-failure -j "$jobs"

cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHALDEN_CUDA=OFF -DHALDEN_SANITIZE=ON \
      -DHALDEN_BUILD_BENCHMARKS=OFF
cmake --build build-asan -j "$jobs"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
    ctest --test-dir build-asan --output-on-failure -j "$jobs"
