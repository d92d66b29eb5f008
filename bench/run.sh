#!/usr/bin/env bash
# Measures Sentrel and what one would take instead, side by side on this machine.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/../scripts/lib.sh"

usage() {
    cat <<'END'
Usage: bench/run.sh [OPTION]...

Builds Sentrel, installs its peers from Debian's packages, measures all of them and prints tables.
Takes some 45 minutes on two cores, and wants the machine for itself.

  --short        under 10 minutes: fewer runs, without the slowest peers. On a busy machine it makes
                 fewer runs still and leaves rows out at the end, which it says
  --busy         beside two processes of its own that spin; a table of its own with the limits that
                 hold then
  --only ROW     that row alone (may be repeated); the others keep the figures of the last run
  --rows         name the rows
  --no-build     measure what is built already
  --publish      write docs/performance-results.md, docs/performance.json and docs/plot.svg as well
                 (with --busy docs/performance-busy.md and docs/performance-busy.json)
  -h, --help     this text

Figures: build/bench/results.json and results.md, the plot: build/bench/plot.svg; with --busy in
build/bench/busy. Everything runs in one temporary directory below ${TMPDIR:-/var/tmp}, to which only
root may be able to write, and which goes at the end. It needs root. No setting of the machine changes,
apart from the length of inotify's queues for the moment in which an agent starts.
END
}

readonly PEERS=(inotify-tools lsyncd watchman gnuplot-nox)
OUTPUT=$ROOT/build/bench
readonly DRIVER=$ROOT/build/release/bench/sentrel_bench

ARGUMENTS=() PUBLISH='' INSIDE='' WORK='' ROWS='' BUSY='' BUILD=yes

parse_arguments() {
    while [[ $# -gt 0 ]]; do
        case $1 in
            --short) ARGUMENTS+=(--short) ;;
            --busy)
                ARGUMENTS+=(--busy)
                BUSY=yes OUTPUT=$ROOT/build/bench/busy
                ;;
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

# A peer that this system does not have is skipped by the driver, with a note in the table.
install_peers() {
    local package
    for package in "${PEERS[@]}"; do
        (install_dependencies "$package") || warn "$package is not to be had; it will be skipped"
    done
}

build() {
    install_dependencies "${BUILD_PACKAGES[@]}" libbenchmark-dev
    install_peers
    step "Building"
    # Tests that somebody builds in the same folder stay as they are.
    local options=(-DSENTREL_BENCH=ON)
    [[ -e $ROOT/build/release/CMakeCache.txt ]] || options+=(-DSENTREL_TESTS=OFF)
    build_preset release "${options[@]}"
}

# ---- Inside a namespace of mounts and processes: whatever was started ends with it.

# shield_machine: the agent raises the machine's limit of watches for good. Here it writes to files of ours.
shield_machine() {
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

# What --busy means: two processes that know no rest.
spin() {
    local count
    trap end_spinning EXIT
    for count in 1 2; do
        "$BASH" -c 'while :; do :; done' "spinning $count" &
        SPINNING+=($!)
    done
}

run_inside() {
    shield_machine
    mkdir -p "$WORK/home" "$WORK/run"
    # The option aliases that the agent uses with this rsync (it has the checksums that they name).
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
        die "others than root can change what lies in $WORK, and the agent keeps no copies in such a" \
            "place: give it another directory by TMPDIR"
    trap : INT TERM HUP
    step "Measuring in $WORK"
    unshare --mount --propagation private --pid --fork --kill-child --mount-proc -- \
        "$BASH" "${BASH_SOURCE[0]}" --inside "$WORK" "${ARGUMENTS[@]}" || status=$?
    [[ $status -eq 0 ]] || die "the measuring ended with exit code $status"
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
