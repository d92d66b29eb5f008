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

  --short        under 10 minutes: fewer runs, without the burst of 30,000 files and the slowest peers
  --only ROW     that row alone (may be repeated); the others keep the figures of the last run
  --rows         name the rows
  --publish      write docs/performance-results.md, docs/performance.json and docs/plot.svg as well
  -h, --help     this text

Figures: build/bench/results.json and results.md, the plot: build/bench/plot.svg. Everything runs in
one temporary directory below ${TMPDIR:-/tmp}, which goes at the end. It needs root. No setting of the
machine changes, apart from the length of inotify's queues for the moment in which an agent starts.
END
}

readonly PEERS=(inotify-tools lsyncd watchman gnuplot-nox)
readonly OUTPUT=$ROOT/build/bench
readonly DRIVER=$ROOT/build/release/bench/sentrel_bench

ARGUMENTS=() PUBLISH='' INSIDE='' WORK='' ROWS=''

parse_arguments() {
    while [[ $# -gt 0 ]]; do
        case $1 in
            --short) ARGUMENTS+=(--short) ;;
            --only)
                [[ $# -ge 2 ]] || die "--only needs a row; --rows names them"
                ARGUMENTS+=(--only "$2")
                shift
                ;;
            --rows) ROWS=yes ;;
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

run_inside() {
    shield_machine
    mkdir -p "$WORK/home" "$WORK/run"
    # The option aliases that the agent uses with this rsync (it has the checksums that they name).
    cp "$ROOT/build/release/stage/conf/home/sha1/.popt" "$WORK/home/"
    local driver status=0
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
    WORK=$(mktemp -d "${TMPDIR:-/tmp}/sentrel-bench.XXXXXX")
    trap 'rm -rf "$WORK"' EXIT
    trap : INT TERM HUP
    step "Measuring in $WORK"
    unshare --mount --propagation private --pid --fork --kill-child --mount-proc -- \
        "$BASH" "${BASH_SOURCE[0]}" --inside "$WORK" "${ARGUMENTS[@]}" || status=$?
    [[ $status -eq 0 ]] || die "the measuring ended with exit code $status"
}

report() {
    "$DRIVER" report --results "$OUTPUT/results.json" --output "$OUTPUT"
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
    build
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
