#!/usr/bin/env bash
# Measures Sentrel and comparable products on this machine.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/../scripts/lib.sh"

usage() {
    cat <<'END'
Usage: bench/run.sh [OPTION]...

Builds Sentrel, installs the compared products (peers) from Debian's packages, measures all of them and
prints tables. It takes some 45 minutes on two cores. Run nothing else on the machine meanwhile.

  --short        takes less than 10 minutes: fewer runs, without the slowest peers. On a busy machine it
                 makes even fewer runs and reports the rows that it omits
  --busy         measures while two processes of its own keep the processors busy, and writes a table of
                 its own with the limits for a busy machine
  --memory-disk  measures on an ext4 file system of its own, with a journal, in an image in memory: the
                 machine's disk, which others may use, has no influence. Needs some 16 GB of memory
  --only ROW     measures only this row (can be repeated); the other rows keep their last results
  --rows         lists the rows
  --no-build     uses the present build
  --publish      also writes docs/performance-results.md, docs/performance.json and docs/plot.svg (with
                 --busy docs/performance-busy.md and docs/performance-busy.json)
  -h, --help     prints this text

Results are in build/bench/results.json and results.md, the plot in build/bench/plot.svg; with --busy
they are in build/bench/busy. All files of a run are in one temporary directory in ${TMPDIR:-/var/tmp},
which is removed at the end. Only root must have write access to it. The script needs root. It changes
no settings of the machine except the length of inotify's queues while an agent starts.
END
}

readonly PEERS=(inotify-tools lsyncd watchman aide gnuplot-nox)
OUTPUT=$ROOT/build/bench
readonly DRIVER=$ROOT/build/release/bench/sentrel_bench

ARGUMENTS=() PUBLISH='' INSIDE='' WORK='' ROWS='' BUSY='' MEMORY_DISK='' BUILD=yes

parse_arguments() {
    while [[ $# -gt 0 ]]; do
        case $1 in
            --short) ARGUMENTS+=(--short) ;;
            --busy)
                ARGUMENTS+=(--busy)
                BUSY=yes OUTPUT=$ROOT/build/bench/busy
                ;;
            --memory-disk) MEMORY_DISK=--memory-disk ;;
            --only)
                [[ $# -ge 2 ]] || die "--only needs a row; --rows names them"
                ARGUMENTS+=(--only "$2")
                shift
                ;;
            --rows) ROWS=yes ;;
            --no-build) BUILD='' ;;
            --publish) PUBLISH=yes ;;
            --inside)
                INSIDE=yes WORK=$2
                shift
                ;;
            -h | --help) usage && exit 0 ;;
            *) die "unknown option: $1; see --help" ;;
        esac
        shift
    done
}

# The driver skips a peer that is not available, with a note in the table.
install_peers() {
    local package
    for package in "${PEERS[@]}"; do
        (install_dependencies "$package") || warn "$package is not available and will be skipped"
    done
}

build() {
    install_dependencies "${BUILD_PACKAGES[@]}" libbenchmark-dev
    install_peers
    step "Building"
    # An existing build directory keeps its setting for tests.
    local options=(-DSENTREL_BENCH=ON)
    [[ -e $ROOT/build/release/CMakeCache.txt ]] || options+=(-DSENTREL_TESTS=OFF)
    build_preset release "${options[@]}"
}

# ---- Inside a mount and process namespace, whose end also ends all processes.

# isolate_machine: the agent raises the machine's limit of watches. Here it writes to stand-ins.
isolate_machine() {
    local limit=/proc/sys/fs/inotify/max_user_watches
    : >"$WORK/sysctl.conf"
    cat "$limit" >"$WORK/max_user_watches"
    [[ -f /etc/sysctl.conf ]] || die "/etc/sysctl.conf is missing; Debian's package procps brings it"
    mount --bind "$WORK/sysctl.conf" /etc/sysctl.conf
    mount --bind "$WORK/max_user_watches" "$limit"
}

SPINNING=()
end_spinning() {
    [[ ${#SPINNING[@]} -eq 0 ]] || kill -KILL "${SPINNING[@]}" 2>/dev/null || true
}

# The load of --busy: two processes that spin.
spin() {
    local count
    trap end_spinning EXIT
    for count in 1 2; do
        "$BASH" -c 'while :; do :; done' "spinning $count" &
        SPINNING+=($!)
    done
}

# mount_memory_disk: mounts the file system of --memory-disk, which ends with the namespace.
mount_memory_disk() {
    mkdir "$WORK/memory"
    mount -t tmpfs -o size=16G,mode=0700 tmpfs "$WORK/memory"
    truncate -s 16G "$WORK/memory/disk"
    mkfs.ext4 -q -N 4000000 "$WORK/memory/disk"
    mount -o loop "$WORK/memory/disk" "$WORK/run"
}

run_inside() {
    isolate_machine
    mkdir -p "$WORK/home" "$WORK/run"
    [[ -z $MEMORY_DISK ]] || mount_memory_disk
    # The rsync option aliases of the agent. This rsync supports their checksums.
    cp "$ROOT/build/release/stage/conf/home/sha1/.popt" "$WORK/home/"
    local driver status=0
    [[ -z $BUSY ]] || spin
    trap 'kill -TERM "$driver" 2>/dev/null' INT TERM HUP
    "$DRIVER" run --work "$WORK/run" --stage "$ROOT/build/release/stage" --home "$WORK/home" \
        --peers "$ROOT/bench/peers" --results "$OUTPUT/results.json" "${ARGUMENTS[@]}" &
    driver=$!
    while kill -0 "$driver" 2>/dev/null; do wait "$driver" || status=$?; done
    exit "$status"
}

# ---- Outside again.

measure() {
    local status=0
    [[ $EUID -eq 0 ]] || die "the agent watches and restores files as root: run this as root"
    WORK=$(mktemp -d "${TMPDIR:-/var/tmp}/sentrel-bench.XXXXXX")
    trap 'rm -rf "$WORK"' EXIT
    is_roots_alone "$WORK" ||
        die "other users than root can change files in $WORK, where the agent keeps no copies:" \
            "set TMPDIR to another directory"
    trap : INT TERM HUP
    step "Measuring in $WORK"
    unshare --mount --propagation private --pid --fork --kill-child --mount-proc -- \
        "$BASH" "${BASH_SOURCE[0]}" --inside "$WORK" $MEMORY_DISK "${ARGUMENTS[@]}" || status=$?
    [[ $status -eq 0 ]] || die "the measurement ended with exit code $status"
}

report() {
    "$DRIVER" report --results "$OUTPUT/results.json" --output "$OUTPUT"
    if [[ -n $BUSY ]]; then
        cat "$OUTPUT/results.md"
        [[ -z $PUBLISH ]] || cp "$OUTPUT/results.md" "$ROOT/docs/performance-busy.md"
        [[ -z $PUBLISH ]] || cp "$OUTPUT/results.json" "$ROOT/docs/performance-busy.json"
        return
    fi
    if ! grep -q ' [0-9]' "$OUTPUT/ready.dat"; then
        warn "no plot: the row scale has not been measured"
    elif command -v gnuplot >/dev/null; then
        (cd "$OUTPUT" && gnuplot "$ROOT/bench/plot.gp" 2>/dev/null) || warn "no plot"
    else
        warn "no plot: gnuplot is missing"
    fi
    cat "$OUTPUT/results.md"
    [[ -n $PUBLISH ]] || return 0
    cp "$OUTPUT/results.md" "$ROOT/docs/performance-results.md"
    cp "$OUTPUT/results.json" "$ROOT/docs/performance.json"
    [[ ! -e $OUTPUT/plot.svg ]] || cp "$OUTPUT/plot.svg" "$ROOT/docs/plot.svg"
}

main() {
    parse_arguments "$@"
    if [[ -n $INSIDE ]]; then run_inside; fi
    [[ -z $BUILD ]] || build
    [[ -x $DRIVER ]] || die "$DRIVER is not built"
    if [[ -n $ROWS ]]; then
        "$DRIVER" rows
        return
    fi
    mkdir -p "$OUTPUT"
    measure
    step "Figures"
    report
}

main "$@"
