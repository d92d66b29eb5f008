#!/usr/bin/env bash
# quickstart_in_home.sh STAGE FOLDER DEADLINE_MS: runs quickstart.sh from a clone in the home of an ordinary
# user, as that user, through sudo. The agent and its backup copies must be in a directory that only root
# can write to, and must be removed at the end. STAGE is the built installation. FOLDER gets the home and
# is removed.
#
# The user is only a number, and a stand-in in its PATH replaces sudo: it asks this script, which is root,
# to run the command. The test does not cover the password prompt and the permissions of the real sudo.
set -euo pipefail

readonly STAGE=$1 FOLDER=$2 DEADLINE_MS=$3 SKIPPED=77
readonly USER_ID=12345 HOME_DIR=$FOLDER/home CLONE=$FOLDER/home/sentrel BROKER=$FOLDER/broker
ROOT=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd -P)
readonly ROOT
BROKER_PID='' USER_PID=''
# Sanitizer options of the build, which root's otherwise empty environment keeps.
mapfile -t SANITIZERS < <(env | grep -E '^(A|L|T|UB)SAN_OPTIONS=')
readonly SANITIZERS

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

as_user() {
    setpriv --reuid "$USER_ID" --regid "$USER_ID" --clear-groups --inh-caps=-all -- \
        env -i HOME="$HOME_DIR" PATH="$BROKER/bin:/usr/bin:/bin" TERM=dumb "$@"
}

# The user owns the clone and the build in it.
make_home() {
    rm -rf "$FOLDER"
    mkdir -p "$CLONE/build/release" "$HOME_DIR/site/news" "$BROKER/bin"
    cp -a -- "$ROOT/scripts" "$ROOT/demo" "$CLONE/"
    cp -a -- "$STAGE" "$CLONE/build/release/stage"
    echo '<h1>welcome</h1>' >"$HOME_DIR/site/index.html"
    echo '<h1>news</h1>' >"$HOME_DIR/site/news/today.html"
    chown -R "$USER_ID:$USER_ID" "$HOME_DIR"
    chmod -R g+w "$CLONE/build"
}

# The stand-in for sudo: passes its arguments on and waits for the exit code.
make_sudo() {
    mkfifo -m 0600 "$BROKER/requests" "$BROKER/answers"
    chown "$USER_ID" "$BROKER"/{requests,answers}
    cat >"$BROKER/bin/sudo" <<END
#!/usr/bin/env bash
printf '%s\0' "\$#" "\$@" >'$BROKER/requests'
read -r status <'$BROKER/answers'
exit "\$status"
END
    chmod 0755 "$BROKER/bin/sudo"
}

# Runs the commands of the stand-in as sudo does: as root, with an environment of its own. Permits only
# the two commands that the script needs.
serve_sudo() {
    local count arguments status
    while :; do
        exec 3<"$BROKER/requests"
        IFS= read -r -d '' count <&3 || continue
        mapfile -d '' -n "$count" -t arguments <&3
        exec 3<&-
        status=0
        if [[ ${arguments[0]} == -v ]]; then
            :
        elif [[ ${arguments[*]:0:6} == '-- unshare --mount --propagation private --' ]]; then
            env -i --default-signal=INT PATH=/usr/sbin:/usr/bin:/sbin:/bin TERM=dumb \
                "${SANITIZERS[@]}" SUDO_UID="$USER_ID" SUDO_GID="$USER_ID" "${arguments[@]:1}" ||
                status=$?
        else
            echo "sudo was asked for: ${arguments[*]}" >&2
            status=1
        fi
        echo "$status" >"$BROKER/answers"
    done
}

clean_up() {
    local status=$? pid
    trap - EXIT
    pid=$(cat "$CLONE/build/quickstart/lock" 2>/dev/null) || true
    if [[ $status -ne 0 ]] && is_quickstart "$pid"; then
        kill -TERM "$pid" || true
        await "the end of the quickstart" is_gone "$pid"
    fi
    for pid in $USER_PID $BROKER_PID; do kill -KILL "$pid" 2>/dev/null || true; done
    [[ $status -eq 0 ]] || cat "$FOLDER"/*.out >&2 2>/dev/null || true
    rm -rf "$FOLDER"
    exit "$status"
}

# is_quickstart PID: true for a quickstart of this home; the lock file may be stale.
is_quickstart() {
    [[ -n $1 && $(tr '\0' ' ' 2>/dev/null <"/proc/$1/cmdline") == *"$CLONE/scripts/quickstart.sh"* ]]
}
is_gone() { ! kill -0 "$1" 2>/dev/null; }

# await WHAT COMMAND...: waits until the command succeeds.
await() {
    local what=$1 end=$((SECONDS + 10 + DEADLINE_MS / 1000))
    shift
    until "$@"; do
        ((SECONDS < end)) || fail "time-out: $what"
        sleep 0.05
    done
}

# start_quickstart NAME ARGUMENT...: starts it in the background with its output in $FOLDER/NAME.out.
start_quickstart() {
    local name=$1
    shift
    as_user "$CLONE/scripts/quickstart.sh" --stage "$CLONE/build/release/stage" \
        --deadline-ms "$DEADLINE_MS" "$@" >"$FOLDER/$name.out" 2>&1 &
    USER_PID=$!
    serve_sudo >>"$FOLDER/$name.out" 2>&1 &
    BROKER_PID=$!
}

# end_quickstart NAME CODE: waits for its end and checks the exit code and that nothing is left.
end_quickstart() {
    local name=$1 code=$2 status=0 place left
    wait "$USER_PID" || status=$?
    kill -TERM "$BROKER_PID"
    wait "$BROKER_PID" 2>/dev/null || true
    USER_PID='' BROKER_PID=''
    [[ $status -ne $SKIPPED ]] || exit "$SKIPPED"
    [[ $status -eq $code ]] || fail "$name ended with $status, not with $code"
    place=$(place_of "$name")
    [[ -n $place ]] || fail "$name printed no directory of root"
    [[ ! -e $place ]] || fail "$name left $place"
    ! left=$(pgrep --full --list-full -- "^($place|$HOME_DIR)/") || fail "still running: $left"
}

# The agent's directory in the output.
place_of() {
    sed -n 's/^ *agent and backup copies live in \([^ ]*\) until the end$/\1/p' "$FOLDER/$1.out"
}

expect_owned_by_root() {
    local place=$1 odd
    [[ $(stat -c '%u %a' "$place") == '0 700' ]] || fail "$place: $(stat -c '%u %a' "$place")"
    for part in agent/bin/morvane_agent backup/tree; do
        [[ -e $place/$part ]] || fail "there is no $place/$part"
    done
    odd=$(find "$place/agent" \( ! -uid 0 -o -perm /022 ! -type l ! -type s \) -print -quit)
    [[ -z $odd ]] || fail "not owned by root alone: $(stat -c '%u %a %n' "$odd")"
}

test_demo() {
    start_quickstart demo --demo
    end_quickstart demo 0
    grep -q 'attacks were undone and reported' "$FOLDER/demo.out" || fail "the demo reported no success"
}

is_ready() { grep -q 'is protected. Change something' "$FOLDER/$1.out"; }
has_content() { [[ $(cat "$1" 2>/dev/null) == "$2" ]]; }

# test_protection NAME PAGE SIGNAL CODE [DIR]: protects DIR, or a sample site. The user changes PAGE, the
# agent restores it, and the signal ends the quickstart.
test_protection() {
    local name=$1 page=$2 signal=$3 code=$4 content
    shift 4
    start_quickstart "$name" "$@"
    await "readiness of $name" is_ready "$name"
    expect_owned_by_root "$(place_of "$name")"
    content=$(<"$page")
    as_user tee -- "$page" <<<defaced >/dev/null || fail "the user cannot change $page"
    await "the restore of $page" has_content "$page" "$content"
    [[ $(stat -c %u "$page") -eq $USER_ID ]] || fail "$page has another owner now"
    kill "-$signal" "$(<"$CLONE/build/quickstart/lock")"
    end_quickstart "$name" "$code"
}

machine() {
    cat /etc/sysctl.conf /proc/sys/fs/inotify/max_user_watches /proc/self/mounts
}

main() {
    local before
    trap clean_up EXIT
    make_home
    make_sudo
    before=$(machine)
    test_demo
    test_protection play "$CLONE/build/quickstart/site/index.html" INT 130
    test_protection own "$HOME_DIR/site/news/today.html" TERM 143 "$HOME_DIR/site"
    [[ $(machine) == "$before" ]] || fail "the machine has changed"
}

main
