#!/usr/bin/env bash
# Builds Sentrel and protects a directory with it, or runs a demo.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"
# shellcheck source=scripts/remote-demo.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/remote-demo.sh"
# shellcheck source=scripts/fleet-demo.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/fleet-demo.sh"

usage() {
    cat <<'END'
Usage: scripts/quickstart.sh [OPTION]... [DIR]
       scripts/quickstart.sh --demo [DIR]
       scripts/quickstart.sh --demo-remote
       scripts/quickstart.sh --demo-fleet

Installs missing Debian packages, builds Sentrel, starts an agent in build/quickstart, and protects DIR
until Ctrl-C: the agent undoes each change below DIR from a backup copy, and the script prints the alarm.
Without DIR the script makes a sample site for you to change.

  --demo              attack a sample site, or a copy of DIR, in more than twenty ways, also through odd
                      names, and print a table. Exit code 0: the agent undid and reported every attack,
                      and ran no command in a name
  --demo-remote       start two agents on two temporary hosts: one protects a site and pushes its backup
                      copies to the other. Kill the server's daemon, try a wrong password, and show what
                      the agents report. Exit code 0: everything went as it should
  --demo-fleet        start a broker, a collector and three agents on loopback: roll out a policy in waves,
                      attack a host, try a wrong policy and a repeated act, kill a host. Prints the address
                      of the console. Installs Debian's mosquitto where it is missing. Exit code 0: everything went
                      as it should
  --ignore-dir NAME   ignore the directory NAME below DIR, such as uploads (may be repeated)
  --ignore-suffix S   ignore files whose names end in S, such as .log (may be repeated)
  --report-only       report changes, but do not undo them
  -h, --help          print this text

The script writes only to build/ and DIR, and changes no setting of the machine. If others than root can
write to build/quickstart or a directory above it, as in a home directory, agent and backup copies live in
a directory below /var/tmp; the script names it and removes it at the end. It needs root and asks sudo.
END
}

readonly SKIPPED=77  # ctest: the test is not possible on this machine

MODE=protect TARGET='' IGNORED_DIRS=() IGNORED_SUFFIXES=()
RESTORE=() STAGE='' WORK=$ROOT/build/quickstart PLACE='' DEADLINE_MS=15000 INSIDE=''
AGENT_PID='' CHILD_PID=''

# Internal options: the tests use --stage, --work and --deadline-ms; this script uses --inside.
parse_arguments() {
    while [[ $# -gt 0 ]]; do
        case $1 in
            --demo) MODE=demo ;;
            --demo-remote) MODE=demo-remote ;;
            --demo-fleet) MODE=demo-fleet ;;
            --ignore-dir | --ignore-suffix | --stage | --work | --deadline-ms)
                [[ $# -ge 2 ]] || die "$1 needs a value; see --help"
                parse_value "$1" "$2"
                shift
                ;;
            --report-only) RESTORE=(--no-restore) ;;
            --inside) INSIDE=yes ;;
            -h | --help) usage && exit 0 ;;
            -*) die "unknown option: $1; see --help" ;;
            '') die "the directory to protect has an empty name" ;;
            *)
                [[ -z $TARGET ]] || die "one directory at a time: $TARGET or $1; see --help"
                TARGET=$1
                ;;
        esac
        shift
    done
}

parse_value() {
    [[ -n $2 ]] || die "$1 needs a value; see --help"
    case $1 in
        --ignore-dir) IGNORED_DIRS+=("$2") ;;
        --ignore-suffix) IGNORED_SUFFIXES+=("$2") ;;
        --stage) STAGE=$(realpath -e -- "$2") ;;
        --work) WORK=$(realpath -m -- "$2") ;;
        --deadline-ms) DEADLINE_MS=$2 ;;
    esac
}

# A policy is a JSON document, which holds no other bytes.
is_utf8() { printf '%s' "$1" | iconv -f UTF-8 -t UTF-8 >/dev/null 2>&1; }

# The demo attacks only files below a path of letters, digits, a few marks and bytes above ASCII.
is_plain() { [[ -z $(printf '%s' "$1" | LC_ALL=C tr -d 'A-Za-z0-9/._+@%,:=\200-\377-') ]]; }

is_below() { [[ $1/ == "${2%/}"/* ]]; }

check_target() {
    [[ -n $TARGET ]] || return 0
    [[ $MODE != demo-remote && $MODE != demo-fleet ]] || die "--$MODE makes a site of its own; see --help"
    [[ -e $TARGET ]] || die "there is no directory $TARGET"
    [[ -d $TARGET ]] || die "$TARGET is not a directory"
    TARGET=$(realpath -e -- "$TARGET")
    [[ $TARGET != / ]] || die "/ cannot be protected as a whole; name a directory below it"
    if is_below "$ROOT" "$TARGET" || is_below "$WORK" "$TARGET"; then
        die "$TARGET contains this repository, and so the agent and its backup copies;" \
            "name another directory"
    fi
    is_below "$TARGET" "$WORK" && die "$TARGET belongs to the quickstart itself"
    [[ $MODE == protect ]] || return 0
    case $TARGET in
        /tmp | /proc | /proc/* | /sys | /sys/* | /dev | /dev/* | /run | /etc)
            die "$TARGET is in use by the system itself; name a directory of your own"
            ;;
    esac
    is_utf8 "$TARGET" ||
        die "the path ${TARGET@Q} has bytes that are not UTF-8, so no policy can name it." \
            "Rename the directory."
}

check_place() {
    is_utf8 "$WORK" ||
        die "the path ${WORK@Q} has bytes that are not UTF-8, so no policy can name it." \
            "Move this repository to another path."
    [[ $MODE != demo && $MODE != demo-fleet ]] || is_plain "$WORK" ||
        die "--$MODE does not run in the path ${WORK@Q}, because it has blanks or shell characters." \
            "Move this repository to another path."
    if [[ -e $WORK/lock ]] && ! flock -n "$WORK/lock" true; then
        die "another quickstart is running (process $(cat "$WORK/lock")); end it with Ctrl-C there" \
            "or with: kill $(cat "$WORK/lock")"
    fi
}

build() {
    install_dependencies "${BUILD_PACKAGES[@]}"
    step "Building (the first time takes a few minutes)"
    build_release
    STAGE=$ROOT/build/release/stage
}

# enter_namespace ARGUMENT...: runs this script again as root, in a private mount namespace.
enter_namespace() {
    local become=()
    if [[ $EUID -ne 0 ]]; then
        command -v sudo >/dev/null ||
            die "the agent runs as root: run this script as root, or install sudo"
        say "    the agent runs as root: sudo may ask for your password"
        become=(sudo --)
        sudo -v || die "the agent needs root"
    fi
    if ! "${become[@]}" unshare --mount --propagation private -- true 2>/dev/null; then
        warn "this machine does not allow a private mount namespace (unshare --mount), so the agent" \
            "cannot run without changing the machine's settings"
        exit "$SKIPPED"
    fi
    exec "${become[@]}" unshare --mount --propagation private -- \
        "$BASH" "$ROOT/scripts/quickstart.sh" "$@" --stage "$STAGE" --inside
}

# ---- From here on: inside the namespace, as root.

take_lock() {
    mkdir -p "$WORK"
    exec 9>>"$WORK/lock"
    flock -n 9 || die "another quickstart is running (process $(cat "$WORK/lock"))"
    : >"$WORK/lock"
    echo "$$" >&9
}

# choose_place: sets PLACE, the directory of the agent and its backup copies. The agent refuses a place that
# others than root can change; so if they can change $WORK, PLACE is a new directory. leave_place removes it.
choose_place() {
    PLACE=$WORK
    ! is_roots_alone "$WORK" || return 0
    PLACE=$(mktemp -d /var/tmp/sentrel-quickstart.XXXXXX)
    say "    others than root may write to $WORK or a directory above it:"
    say "    agent and backup copies live in $PLACE until the end"
}

# leave_place LOG...: removes PLACE if choose_place made it for this run; keeps the logs.
leave_place() {
    [[ -n $PLACE && $PLACE != "$WORK" ]] || return 0
    rm -rf "$WORK/log"
    mkdir -p "$WORK/log"
    (cd "$PLACE" && cp -r --parents -- "$@" "$WORK/log" 2>/dev/null) || true
    rm -rf "$PLACE"
    say "    removed $PLACE; logs: $WORK/log"
}

# install_stage TO: copies the built installation, owned by root.
install_stage() {
    cp -a -- "$STAGE" "$1"
    rm -rf "$1"/{data,log,run}
    chown -R 0:0 -- "$1"
    chmod -R go-w -- "$1"
}

# The agent raises the machine's inotify limits. In this namespace private files stand in for the machine's,
# so that the machine's settings do not change.
shield_machine() {
    local limits=/proc/sys/fs/inotify limit
    [[ -f /etc/sysctl.conf ]] ||
        die "/etc/sysctl.conf is missing. Install Debian's package procps, or create an empty file."
    mkdir -p "$PLACE/shield"
    : >"$PLACE/shield/sysctl.conf"
    mount --bind "$PLACE/shield/sysctl.conf" /etc/sysctl.conf
    for limit in max_user_watches max_queued_events; do
        cat "$limits/$limit" >"$PLACE/shield/$limit"
        mount --bind "$PLACE/shield/$limit" "$limits/$limit"
    done
}

# Installs the agent anew. The backup copies of a user's directory stay.
prepare_agent() {
    step "Installing the agent in $PLACE/agent"
    rm -rf "$PLACE/agent" "$PLACE/scratch"
    [[ $MODE == protect && -n $TARGET ]] || rm -rf "$PLACE/backup"
    install_stage "$PLACE/agent"
    mkdir -p "$PLACE/backup"/{tree,file} "$PLACE/scratch"
    chmod 0700 "$PLACE/backup"  # the copies keep the owners of the site, who must not reach them
}

# prepare_site: sets SITE, and SINGLE_FILE unless a user's directory is protected. The sample site lies in
# $WORK, where the user can change it.
prepare_site() {
    local folder=$WORK
    SINGLE_FILE=''
    if [[ $MODE == protect && -n $TARGET ]]; then
        SITE=$TARGET
        return
    fi
    [[ $MODE == protect ]] || folder=$PLACE
    rm -rf "$folder/site" "$folder/single"
    SITE=$folder/site
    if [[ -n $TARGET ]]; then
        step "Copying $TARGET to $SITE"
        cp -a -- "$TARGET" "$SITE"
        IGNORED_DIRS+=(sentrel-demo-uploads)
        mkdir -p "$SITE/sentrel-demo-uploads"
    else
        step "Making a small site in $SITE"
        make_sample_site
        IGNORED_DIRS+=(uploads)
        IGNORED_SUFFIXES+=(.cache)
    fi
    [[ $MODE != demo ]] ||
        "$PLACE/agent/bin/sentrel_demo" odd-names --site "$SITE" --scratch "$PLACE/scratch"
    mkdir -p "$folder/single"
    SINGLE_FILE=$folder/single/settings.php
    cp -- "$ROOT/demo/settings.php" "$SINGLE_FILE"
    chown -R "${SUDO_UID:-0}:${SUDO_GID:-0}" "$SITE" "$folder/single"
}

make_sample_site() {
    local image
    cp -r -- "$ROOT/demo/site" "$SITE"
    mkdir -p "$SITE"/{images/team,uploads/2024,cache}
    for image in hero.jpg logo.png team/anna.jpg team/ben.jpg team/chris.jpg; do
        head -c $((4096 + RANDOM)) /dev/urandom >"$SITE/images/$image"
    done
    head -c 20000 /dev/urandom >"$SITE/uploads/2024/holiday.jpg"
    echo 'rendered a minute ago' >"$SITE/cache/home.cache"
}

start_agent() {
    step "Starting the agent"
    setpriv --pdeathsig TERM -- "$PLACE/agent/bin/morvane_agent" \
        >"$PLACE/agent.out" 2>&1 </dev/null 9>&- &
    AGENT_PID=$!
    run_child "$PLACE/agent/bin/sentrel_demo" answer --socket "$SOCKET" --deadline-ms 60000 ||
        die "the agent does not answer; its output is in $PLACE/agent.out"
}

apply_policy() {
    local arguments=(--tree "$SITE" --backup "$PLACE/backup" --rsync "$(realpath -e /usr/bin/rsync)")
    arguments+=("${RESTORE[@]}")
    local name paths=1
    [[ -z $SINGLE_FILE ]] || arguments+=(--file "$SINGLE_FILE") paths=2
    for name in "${IGNORED_DIRS[@]}"; do arguments+=(--ignore-dir "$name"); done
    for name in "${IGNORED_SUFFIXES[@]}"; do arguments+=(--ignore-suffix "$name"); done
    step "Applying the policy: protect $SITE"
    "$PLACE/agent/bin/sentrel_demo" policy "${arguments[@]}" >"$PLACE/policy.json"
    run_child "$PLACE/agent/bin/morvanectl" --socket "$SOCKET" policy apply sentrel_feature \
        "$PLACE/policy.json" || die "the agent refused the policy $PLACE/policy.json"
    step "Making the first backup copy and placing the watches"
    run_child "$PLACE/agent/bin/sentrel_demo" ready --socket "$SOCKET" --paths "$paths" \
        --deadline-ms "$([[ $MODE == demo ]] && echo "$((20 * DEADLINE_MS))" || echo 0)" ||
        die "the protection is not ready in time; see $PLACE/agent/log"
}

warn_of_limits() {
    local directories limit
    directories=$(find "$SITE" -type d | wc -l)
    limit=$(cat "$REAL_LIMIT")
    [[ $directories -lt $limit ]] ||
        warn "$SITE has $directories directories, but this machine allows only $limit watches:" \
            "raise it with: sysctl fs.inotify.max_user_watches=819200"
}

# run_child COMMAND...: runs it in the background, so that a signal takes effect at once. Fails if the agent
# ends first.
run_child() {
    local status=0 ended=''
    "$@" 9>&- &
    CHILD_PID=$!
    wait -n -p ended "$CHILD_PID" "$AGENT_PID" || status=$?
    if [[ $ended == "$AGENT_PID" ]]; then
        AGENT_PID=''
        warn "the agent ended by itself with exit code $status; its log is in $PLACE/agent/log"
        tail -n 20 "$PLACE/agent.out" >&2
        return 1
    fi
    CHILD_PID=''
    return "$status"
}

# stop_process PID: sends SIGTERM, and SIGKILL after 20 seconds. Returns the exit code.
stop_process() {
    local tries
    kill -TERM "$1" 2>/dev/null || true
    for ((tries = 0; tries < 200; tries++)); do
        kill -0 "$1" 2>/dev/null || break
        sleep 0.1
    done
    kill -KILL "$1" 2>/dev/null && warn "process $1 did not stop on SIGTERM and was killed"
    wait "$1"
}

clean_up() {
    local status=$? stopped=0
    trap - EXIT INT TERM HUP
    [[ -z $CHILD_PID ]] || stop_process "$CHILD_PID" >/dev/null 2>&1 || true
    if [[ -n $AGENT_PID ]]; then
        step "Stopping the agent"
        stop_process "$AGENT_PID" || stopped=$?
        if [[ $stopped -ne 0 ]]; then
            warn "the agent ended with exit code $stopped:"
            tail -n 40 "$PLACE/agent.out" >&2
            [[ $status -ne 0 ]] || status=1
        fi
    fi
    if [[ $PLACE == "$WORK" ]]; then
        say "    logs: $WORK/agent/log, policy: $WORK/policy.json, backup copies: $WORK/backup"
    fi
    leave_place agent/log agent.out policy.json
    exit "$status"
}

demo() {
    local arguments=(--site "$SITE" --file "$SINGLE_FILE" --scratch "$PLACE/scratch")
    local name
    for name in "${IGNORED_DIRS[@]}"; do arguments+=(--ignore-dir "$name"); done
    for name in "${IGNORED_SUFFIXES[@]}"; do arguments+=(--ignore-suffix "$name"); done
    step "Attacking $SITE"
    run_child "$PLACE/agent/bin/sentrel_demo" attack "${arguments[@]}" --socket "$SOCKET" \
        --deadline-ms "$DEADLINE_MS"
}

page_to_deface() {
    local page
    for page in "$SITE"/index.{html,php}; do
        [[ ! -f $page ]] || break
    done
    [[ -f $page ]] || page=$(find "$SITE" -type f -size -100k -print -quit)
    printf '%q' "${page:-$SITE/new.html}"
}

follow() {
    say
    say "$SITE is protected. Change something in it, in another terminal:"
    say "    echo '<h1>defaced</h1>' >> $(page_to_deface)"
    say "Status:   ${SUDO_UID:+sudo }$(printf '%q' "$PLACE/agent/bin/morvanectl") status"
    say "To stop:  Ctrl-C"
    say
    run_child "$PLACE/agent/bin/morvanectl" --socket "$SOCKET" alarms --follow
}

run_inside() {
    take_lock
    case $MODE in
        demo-remote) trap clean_up_hosts EXIT ;;
        demo-fleet) trap clean_up_fleet EXIT ;;
        *) trap clean_up EXIT ;;
    esac
    trap 'say; exit 130' INT
    trap 'exit 143' TERM HUP
    choose_place
    if [[ $MODE == demo-remote ]]; then
        shield_machine
        demo_remote
        return
    fi
    if [[ $MODE == demo-fleet ]]; then
        shield_machine
        demo_fleet
        return
    fi
    readonly SOCKET=$PLACE/agent/run/agent.sock
    readonly REAL_LIMIT=$PLACE/real_limit
    cat /proc/sys/fs/inotify/max_user_watches >"$REAL_LIMIT"
    shield_machine
    prepare_agent
    prepare_site
    warn_of_limits
    start_agent
    apply_policy
    if [[ $MODE == demo ]]; then demo; else follow; fi
}

main() {
    parse_arguments "$@"
    check_target
    if [[ -n $INSIDE ]]; then
        run_inside
        return
    fi
    check_place
    [[ -n $STAGE ]] || build
    [[ $MODE != demo-remote ]] || install_dependencies iproute2
    [[ $MODE != demo-fleet ]] || install_dependencies mosquitto openssl
    enter_namespace "$@"
}

main "$@"
