#!/usr/bin/env bash
# demo.sh DEMO STAGE WORK DEADLINE_MS: the demo (--demo, --demo-remote or --demo-fleet) must pass and must not
# change the machine.
set -euo pipefail

demo=$1 stage=$2 work=$3 deadline_ms=$4
scripts=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../../scripts" && pwd)

machine() {
    cat /etc/sysctl.conf /proc/sys/fs/inotify/max_user_watches /proc/self/mounts
    ip -brief link
}

before=$(machine)
"$scripts/quickstart.sh" "$demo" --stage "$stage" --work "$work" --deadline-ms "$deadline_ms"

if [[ $(machine) != "$before" ]]; then
    echo "the machine's settings, mounts or network have changed" >&2
    exit 1
fi
if left=$(pgrep --full --list-full -- "^$work/"); then
    echo "still running: $left" >&2
    exit 1
fi
