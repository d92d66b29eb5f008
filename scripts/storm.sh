#!/usr/bin/env bash
# Runs storms of random changes on protected sites and checks that the agent undoes and reports them.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<'END'
Usage: scripts/storm.sh [--preset NAME] [--seeds N] [--first N] [--mode MODE] [--steps N]

Builds the preset (default: release), starts one agent, and runs N storms (default: 200), each on a site of
its own. A storm passes if the site equals its backup copy again without a restart, and the agent reported
every difference that it saw. The script prints one line a storm. Exit code 0: all storms passed. If one
fails, the differences and the agent's debug log stay in build/storm/SEED.

  --first N     seed of the first storm (default: random; the script prints it)
  --mode MODE   restore; monitor: the agent only reports; overflow: the agent is stopped until the kernel
                has dropped events; slow: every rsync takes longer; all: a mix (default)
  --steps N     operations a storm (default: 200)

The same seed makes the same operations: scripts/storm.sh --seeds 1 --first SEED --mode MODE. Their timing
against the agent varies, so it may take several runs to see a fault again. It needs root.
END
}

main() {
    local preset=release arguments=()
    while [[ $# -gt 0 ]]; do
        case $1 in
            --preset | --seeds | --first | --mode | --steps)
                [[ $# -ge 2 ]] || die "$1 needs a value; see --help"
                if [[ $1 == --preset ]]; then preset=$2; else arguments+=("$1" "$2"); fi
                shift
                ;;
            -h | --help) usage && return 0 ;;
            *) usage >&2 && die "unknown option: $1" ;;
        esac
        shift
    done
    [[ $EUID -eq 0 ]] || die "the agent under test runs in a private mount namespace: run this as root"
    install_dependencies "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
    build_preset "$preset" -DSENTREL_TESTS=ON
    "$ROOT/build/$preset/tests/sentrel_storm" --keep "$ROOT/build/storm" "${arguments[@]}"
}

main "$@"
