# shellcheck shell=bash
# Sourced by tests that install the Debian package: a machine of their own, an overlay of the present root.
# They set FOLDER, an empty directory, and call enter_machine first.
# shellcheck source=scripts/tests/unit.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/unit.sh"

readonly SKIPPED=77 INSTALLATION=/usr/local/morvane
# shellcheck disable=SC2153
readonly MACHINE=$FOLDER/machine/root
AGENT_PID=''

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

show_logs() {
    local status=$?
    trap - EXIT
    if [[ $status -ne 0 && $status -ne $SKIPPED ]]; then
        tail -n 40 "$FOLDER"/*.out "$MACHINE$INSTALLATION/log/agent.log" >&2 2>/dev/null || true
    fi
    exit "$status"
}

# await WHAT COMMAND...: waits until the command succeeds.
await() {
    local what=$1 end=$((SECONDS + 30))
    shift
    until "$@"; do
        ((SECONDS < end)) || fail "time-out: $what"
        sleep 0.05
    done
}

# enter_machine COMMAND...: runs it in namespaces of its own, which take all mounts and processes with them when it
# ends. The machine must be as before; $FOLDER is removed. Returns the command's exit code.
enter_machine() {
    local before status=0 namespaces=(unshare --mount --propagation private --pid --fork --kill-child)
    [[ $EUID -eq 0 ]] || { echo "this needs root" && exit "$SKIPPED"; }
    "${namespaces[@]}" true || { echo "no namespaces of our own here" && exit "$SKIPPED"; }
    mkdir -p "$FOLDER/machine"
    before=$(present_machine)
    "${namespaces[@]}" -- "$@" || status=$?
    [[ $(present_machine) == "$before" ]] || fail "the machine has changed"
    # This namespace has none of the mounts: there is nothing below but our own files.
    rm -rf --one-file-system "$FOLDER"
    return "$status"
}

present_machine() {
    cat /etc/sysctl.conf /proc/sys/fs/inotify/* /proc/self/mounts
    find /dev -xdev -printf '%p %y %m %U\n' | sort
    dpkg-query -W sentrel 2>&1 || true
    ls -d "$INSTALLATION" 2>&1 || true
}

# make_machine: an overlay of / whose changes are kept in memory. Devices and settings of the kernel are not the
# machine's: /dev has a few nodes of its own, /proc is that of this process namespace and /proc/sys is read-only.
make_machine() {
    mount -t tmpfs -o mode=0755 none "$FOLDER/machine"
    mkdir "$FOLDER/machine/upper" "$FOLDER/machine/work" "$MACHINE"
    mount -t overlay -o "lowerdir=/,upperdir=$FOLDER/machine/upper,workdir=$FOLDER/machine/work" none "$MACHINE" ||
        { echo "no overlay of / can be mounted here" && exit "$SKIPPED"; }
    mount -t proc none "$MACHINE/proc" || { echo "no /proc can be mounted here" && exit "$SKIPPED"; }
    mount --bind "$MACHINE/proc/sys" "$MACHINE/proc/sys"
    mount -o remount,bind,ro "$MACHINE/proc/sys"
    mount -t tmpfs -o mode=0755 none "$MACHINE/run"
    mount -t tmpfs -o mode=0755 none "$MACHINE/dev"
    mknod -m 0666 "$MACHINE/dev/null" c 1 3
    mknod -m 0666 "$MACHINE/dev/urandom" c 1 9
    mkdir "$MACHINE/dev/pts"
    mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 none "$MACHINE/dev/pts"
    ln -s pts/ptmx "$MACHINE/dev/ptmx"
    ln -s /proc/self/fd "$MACHINE/dev/fd"
    chmod go-w "$MACHINE/usr/local"
    rm -rf --one-file-system "$MACHINE${INSTALLATION:?}"
    mount --make-rshared "$MACHINE"
}

readonly INSIDE=(chroot "$MACHINE" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8)
inside() { "${INSIDE[@]}" "$@"; }

# start_agent WORD...: as the unit does, without systemd, through the words.
start_agent() {
    local words
    mapfile -t words < <(unit_confinement "$MACHINE/lib/systemd/system/morvane-agent.service")
    # Each of these words executes the next, so the process is the agent's.
    "$@" "${INSIDE[@]}" "${words[@]}" "$INSTALLATION/bin/morvane_agent" >"$FOLDER/agent.out" 2>&1 &
    AGENT_PID=$!
    await "the start of the agent" grep -qs 'morvane_agent runs' "$FOLDER/agent.out"
}

has_ended() { ! kill -0 "$1" 2>/dev/null; }

stop_agent() {
    kill -TERM "$AGENT_PID"
    wait "$AGENT_PID" || fail "the agent ended with $?"
    AGENT_PID=''
}
