#!/usr/bin/env bash
# One entry point for building libkemo on Debian 12, as root:
#   ./build.sh demo    install what is needed, build, and tour the library
#                      on a sandboxed factory appliance
#   ./build.sh test    install what is needed, build, and run the whole test
#                      suite, once plainly and once under ASan+UBSan, then
#                      a short run of every fuzz target
#   ./build.sh demo-storage
#                      install, build, and tour the disk functions in a
#                      virtual appliance with four blank disks
#   ./build.sh bench   install, build (Release) and run the benchmarks
#   ./build.sh deps    only install the packages
set -euo pipefail
cd "$(dirname "$0")"
top=$PWD
jobs=$(nproc 2>/dev/null || echo 2)

packages=(
    g++ cmake make pkg-config
    libicu-dev libnet1-dev libcrypt-dev nettle-dev libfdisk-dev
    libgtest-dev libgmock-dev libbenchmark-dev
)
# The virtual appliance: a QEMU guest booted from this machine's kernel,
# with its mdadm, e2fsprogs, quota tools and util-linux.
guest_packages=(qemu-system-x86 linux-image-amd64 busybox-static mdadm e2fsprogs quota fdisk cpio kmod)
# The fuzz targets are built with clang and its libFuzzer runtime; storage
# tests run in the virtual appliance.
# The daemons the tour and the tests meet: network namespaces and veth pairs
# for discovery, the UPS tools with their dummy driver, the scheduler.
peer_packages=(iproute2 nut-client nut-server cron tzdata)
test_packages=(clang libclang-rt-14-dev samba-common-bin "${guest_packages[@]}" "${peer_packages[@]}")
# The tools the benchmarks compare against.
bench_packages=(augeas-tools crudini git fdisk)

need_root() {
    if [ "$(id -u)" -ne 0 ]; then
        echo "build.sh: run as root (installing packages and the appliance sandbox need it)" >&2
        exit 1
    fi
}

deps() { # deps [extra packages...]
    need_root
    local missing=()
    for p in "${packages[@]}" "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
    done
    if [ ${#missing[@]} -gt 0 ]; then
        echo "== installing: ${missing[*]}"
        export DEBIAN_FRONTEND=noninteractive
        apt-get update -qq
        apt-get install -y -qq --no-install-recommends "${missing[@]}"
    fi
}

# in_guest BUILD PROGRAM [ARGS...]: runs a program of that build in the
# virtual appliance (four blank disks), with the build's appliance programs
# at their paths (its settings programs, sfdisk, and the file-system tools
# that write the volume functions' progress files).
in_guest() {
    local dir=$top/$1
    shift
    "$top/tests/guest/kemo-guest" --build "$dir" \
        --program "$dir/tools/get_key_value:/bin/get_key_value" \
        --program "$dir/tools/set_key_value:/bin/set_key_value" \
        --program "$dir/tools/sfdisk:/sbin/sfdisk" \
        --program "$dir/tools/e2fs-progress:/sbin/mke2fs" \
        --program "$dir/tools/e2fs-progress:/sbin/mkfs.ext3" \
        --program "$dir/tools/e2fs-progress:/sbin/resize2fs" -- "$@"
}

build() { # build DIR [cmake options...]
    local dir=$1
    shift
    cmake -S "$top" -B "$dir" "$@" >/dev/null
    cmake --build "$dir" -j"$jobs"
}

case "${1:-}" in
deps)
    deps
    ;;
demo)
    deps "${peer_packages[@]}"
    build build -DKEMO_BUILD_BENCH=OFF
    export KEMO_SANDBOX_EXPOSE="$top"
    exec build/tools/sandbox/kemo-sandbox -- env PATH="$top/build/tools:$top/build/tools/sandbox:$PATH" sh "$top/tools/tour.sh"
    ;;
demo-storage)
    deps "${guest_packages[@]}"
    build build -DKEMO_BUILD_BENCH=OFF
    in_guest build env PATH="$top/build/tools:/sbin:/bin:/usr/sbin:/usr/bin" sh "$top/tools/tour_storage.sh"
    ;;
test)
    deps "${test_packages[@]}"
    # (options named: a demo build in the same directory leaves the
    # benchmarks switched off in its cache)
    build build -DKEMO_BUILD_TESTS=ON -DKEMO_BUILD_BENCH=ON
    (cd build && ctest -j"$jobs" --output-on-failure)
    build build-asan -DKEMO_SANITIZE=ON -DKEMO_BUILD_BENCH=OFF
    (cd build-asan && ctest -j"$jobs" --output-on-failure)
    # A short fuzzing run from the saved corpus (new inputs go to a scratch
    # directory; an input that finds a fault is kept to be added to the
    # corpus, and fails the run).
    # Targets that import into the appliance's paths enter the sandbox
    # themselves: the checkout stays visible there, the machine's /tmp not.
    CC=clang CXX=clang++ build build-fuzz -DKEMO_BUILD_FUZZ=ON
    export KEMO_SANDBOX_EXPOSE="$top"
    for target in build-fuzz/fuzz/fuzz_*; do
        name=${target##*/fuzz_}
        scratch=build-fuzz/scratch-$name
        rm -rf "$scratch" && mkdir -p "$scratch"
        "$target" -max_total_time="${KEMO_FUZZ_SECONDS:-20}" -artifact_prefix="build-fuzz/" \
            "$scratch" "fuzz/corpus/$name"
        rm -rf "$scratch"
    done
    ;;
bench)
    deps "${bench_packages[@]}"
    build build-release -DCMAKE_BUILD_TYPE=Release -DKEMO_BUILD_TESTS=OFF
    export KEMO_SANDBOX_EXPOSE="$top"
    # Each benchmark enters the appliance sandbox itself (after opening what
    # it measures on the machine's own disk).
    for b in build-release/bench/bench_*; do
        if [ -x "$b" ]; then
            "$b"
        fi
    done
    # What runs on the appliance's disks is measured in the virtual
    # appliance.
    deps "${guest_packages[@]}"
    in_guest build-release build-release/bench/guest_bench_disk_status
    in_guest build-release build-release/bench/guest_bench_storage
    ;;
*)
    sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'
    exit 2
    ;;
esac
