#!/usr/bin/env bash
# demo.sh STAGE WORK DEADLINE_MS: the demo must pass, and leave the machine as it found it.
set -euo pipefail

stage=$1 work=$2 deadline_ms=$3
scripts=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../../scripts" && pwd)

machine() {
    cat /etc/sysctl.conf /proc/sys/fs/inotify/max_user_watches /proc/self/mounts
}

before=$(machine)
"$scripts/quickstart.sh" --demo --stage "$stage" --work "$work" --deadline-ms "$deadline_ms"

if [[ $(machine) != "$before" ]]; then
    echo "the machine's settings or mounts are not as they were" >&2
    exit 1
fi
if pid=$(cat "$work/agent/run/agent.lock" 2>/dev/null) && [[ -n $pid && -d /proc/$pid ]]; then
    echo "the agent is still running" >&2
    exit 1
fi
