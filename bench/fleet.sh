#!/usr/bin/env bash
# Measures a fleet of simulated hosts on this machine.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/../scripts/lib.sh"

usage() {
    cat <<'END'
Usage: bench/fleet.sh [OPTION]...

Builds and runs simulated hosts with the real broker, collector and databases, and prints figures: hosts that
all connect at once, alarms at a rate, collector and broker killed (SQLite), the database stopped (PostgreSQL). At
the end it checks that each alarm is stored once and in order. Takes some four minutes on two cores. Run nothing
else on the machine meanwhile. Needs root and 2 * N open files.

  --hosts N      simulated hosts; default: 5000
  --rate N       alarms in a second; default: 1000
  --seconds N    of load; default: 60
  --outage N     seconds without PostgreSQL, of its load; default: 60
  --no-build     uses the present build
  -h, --help     prints this text
END
}

main() {
    local build=yes options=()
    while [[ $# -gt 0 ]]; do
        case $1 in
            --hosts | --rate | --seconds | --outage)
                [[ $# -ge 2 ]] || die "$1 needs a value"
                options+=("$1" "$2")
                shift
                ;;
            --no-build) build='' ;;
            -h | --help) usage && return 0 ;;
            *) usage >&2 && die "unknown option: $1" ;;
        esac
        shift
    done
    if [[ -n $build ]]; then
        install_dependencies "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
        build_preset release -DSENTREL_TESTS=ON
        cmake --build --preset release --target fleet_bench >/dev/null
    fi
    local bench=$ROOT/build/release/bench/fleet_bench
    "$bench" intake --reports 30000
    "$bench" rest --rest 10
    "$bench" sqlite "${options[@]}"
    "$bench" postgres "${options[@]}"
}

main "$@"
