#!/usr/bin/env bash
# Lets random storms loose on sites that an agent protects, and checks what the agent made of each.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<'END'
Usage: scripts/storm.sh [--preset NAME] [--seeds N] [--first N] [--mode MODE] [--steps N]

Builds the preset (release), starts one agent, and lets N storms (200) loose on a site each, from the
seed --first on (by default any, which is printed). A storm passes when the site is as its backup copy
again, with no restart, and every difference that was seen was told. One line a storm; of a failure
the differences and the agent's debug log stay in build/storm/SEED. Exit code 0: all have passed.

  --mode MODE   restore, monitor (nothing is undone, all is told), overflow (the agent is stopped until
                the kernel has dropped events), slow (every rsync takes longer); all mixes them
  --steps N     operations a storm (200)

The same seed makes the same operations: scripts/storm.sh --seeds 1 --first SEED --mode MODE. How they
meet with the agent's is up to the machine, so a fault may take some tries to come again. It needs root.
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
    [[ $EUID -eq 0 ]] || die "the agent under test runs in mounts of its own: run this as root"
    install_dependencies "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
    build_preset "$preset" -DSENTREL_TESTS=ON
    "$ROOT/build/$preset/tests/sentrel_storm" --keep "$ROOT/build/storm" "${arguments[@]}"
}

main "$@"
