#!/usr/bin/env bash
# confined.sh UNIT E2E_TESTS FILTER: runs end-to-end tests with the agent under the capabilities of its systemd unit,
# and checks how exposed systemd thinks the unit to be.
set -euo pipefail
# shellcheck source=scripts/tests/unit.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/unit.sh"

readonly UNIT=$1 E2E_TESTS=$2 FILTER=$3
# In tenths; systemd's scale ends at 10.
readonly MOST_EXPOSURE=40

main() {
    local words
    words=$(unit_confinement "$UNIT")
    # systemd-analyze writes to /run/systemd, here to one of its own.
    # shellcheck disable=SC2016
    unshare --mount --propagation private sh -c 'mount -t tmpfs none /run && exec "$@"' - \
        systemd-analyze security --offline=true --no-pager --threshold="$MOST_EXPOSURE" "$UNIT" | tail -n 1
    SENTREL_AGENT_THROUGH="$words" "$E2E_TESTS" --gtest_brief=1 --gtest_filter="$FILTER"
}

main
