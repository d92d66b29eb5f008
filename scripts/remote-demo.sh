# shellcheck shell=bash
# The demo with two hosts; quickstart.sh sources it. Owns the two hosts and what runs in them. A host is a
# network, a process and a mount namespace, kept alive by one process. That process ends with this script;
# then everything in the host ends, too.

readonly SERVER_IP=10.77.0.1 WEB_IP=10.77.0.2 SERVER_PORT=873
declare -A HOST_KEEPER=() HOST_INIT=() HOST_AGENT=()

# demo_remote: runs the demo, in a mount namespace, as root. Exits with $SKIPPED where it is not possible.
demo_remote() {
    if ! unshare --net --pid --mount --fork -- true 2>/dev/null; then
        warn "this machine does not allow a private network namespace (unshare --net), so there can be" \
            "no second host"
        exit "$SKIPPED"
    fi
    prepare_hosts
    start_backup_server
    start_web_server
    show_copy
    show_killed_daemon
    show_wrong_password
    say
    say "Everything went as it should."
}

prepare_hosts() {
    local host
    step "Making two hosts with a cable between them: backup server $SERVER_IP, web server $WEB_IP"
    rm -rf "$PLACE"/{server,web,received,site,backup}
    mkdir -p "$PLACE"/{received,backup}
    chmod 0700 "$PLACE"/{received,backup}
    for host in server web; do
        install_stage "$PLACE/$host"
        start_host "$host"
    done
    # Without --pid: the network tool needs the process ids of this script's namespace.
    nsenter --target "${HOST_INIT[server]}" --net -- \
        ip link add eth0 type veth peer name eth0 netns "${HOST_INIT[web]}"
    connect_host server "$SERVER_IP"
    connect_host web "$WEB_IP"
    SITE=$PLACE/site
    make_sample_site
}

# start_host NAME: a host sees this machine's file system, but can write only to $PLACE, /tmp and /run.
start_host() {
    local ready=$PLACE/$1.ready tries
    rm -f "$ready"
    # shellcheck disable=SC2016
    setpriv --pdeathsig KILL -- unshare --net --pid --mount --fork --kill-child --mount-proc -- \
        "$BASH" -c '
            set -e
            for limit in max_user_watches max_queued_events; do
                mount --bind "$1/shield/$limit" "/proc/sys/fs/inotify/$limit"
            done
            mount -t tmpfs -o size=1m none /run
            mount --bind /tmp /tmp
            mount --bind "$1" "$1"
            mount -o remount,bind,ro /
            : >"$2"
            sleep infinity &
            wait' host "$PLACE" "$ready" 9>&- </dev/null &
    HOST_KEEPER[$1]=$!
    for ((tries = 0; tries < 100; tries++)); do
        [[ ! -e $ready ]] || break
        kill -0 "${HOST_KEEPER[$1]}" 2>/dev/null || break
        sleep 0.1
    done
    [[ -e $ready ]] || die "cannot make the host $1"
    HOST_INIT[$1]=$(<"/proc/${HOST_KEEPER[$1]}/task/${HOST_KEEPER[$1]}/children")
    HOST_INIT[$1]=${HOST_INIT[$1]%% *}
}

# connect_host NAME ADDRESS: gives the host's network device its address.
connect_host() {
    local command
    for command in "link set lo up" "link set eth0 up" "address add $2/24 dev eth0"; do
        # shellcheck disable=SC2086
        nsenter --target "${HOST_INIT[$1]}" --net -- ip $command
    done
}

# in_host NAME COMMAND...
in_host() {
    local host=$1
    shift
    nsenter --target "${HOST_INIT[$host]}" --net --pid --mount -- "$@"
}

# ctl NAME ARGUMENT...: runs morvanectl for that host's agent.
ctl() {
    local host=$1
    shift
    "$PLACE/$host/bin/morvanectl" "$@"
}

start_host_agent() {
    nsenter --target "${HOST_INIT[$1]}" --net --pid --mount -- "$PLACE/$1/bin/morvane_agent" \
        >"$PLACE/$1.out" 2>&1 </dev/null 9>&- &
    HOST_AGENT[$1]=$!
    "$PLACE/$1/bin/sentrel_demo" answer --socket "$PLACE/$1/run/agent.sock" --deadline-ms 60000 ||
        die "the agent of the host $1 does not answer; its output is in $PLACE/$1.out"
}

# await NAME PATTERN: waits until a line of that host's status matches, and prints the line.
await() {
    local host=$1 pattern=$2 started=$SECONDS line
    # The exit code of status tells the health, which matters at the end only.
    while ! line=$({ ctl "$host" status 2>/dev/null || true; } | grep -E -m 1 -- "$pattern"); do
        if ((SECONDS - started > (60 + DEADLINE_MS / 1000))); then
            ctl "$host" status >&2 || true
            die "the status of the host $host never said: $pattern"
        fi
        sleep 0.1
    done
    say "    $host: ${line}"
}

start_backup_server() {
    step "Backup server: starting the agent, setting the password, applying the policy"
    PASSWORD=$(head -c 12 /dev/urandom | base64)
    start_host_agent server
    ctl server secret set server <<<"$PASSWORD" >/dev/null
    "$STAGE/bin/sentrel_demo" server-policy --address "$SERVER_IP" --port "$SERVER_PORT" \
        --path "$PLACE/received" --rsync "$(realpath -e /usr/bin/rsync)" >"$PLACE/server-policy.json"
    ctl server policy apply backupserver_feature "$PLACE/server-policy.json" | indent
    await server '^server +running'
}

start_web_server() {
    step "Web server: starting the agent, setting the password, protecting $SITE"
    start_host_agent web
    ctl web secret set client <<<"$PASSWORD" >/dev/null
    push
}

# push: applies the policy, which brings the backup copies up to date and pushes them.
push() {
    "$STAGE/bin/sentrel_demo" policy --tree "$SITE" --backup "$PLACE/backup" --ignore-dir uploads \
        --rsync "$(realpath -e /usr/bin/rsync)" --push-to "$SERVER_IP" --push-port "$SERVER_PORT" \
        >"$PLACE/web-policy.json"
    ctl web policy apply sentrel_feature "$PLACE/web-policy.json" | indent
}

indent() { sed 's/^/    /'; }

# await_copy: waits until the backup server has the web server's copy; sets RECEIVED to its folder.
# RemoteBackupTest compares the two.
await_copy() {
    await web '^backup .*remote up to date'
    RECEIVED=$PLACE/received/$(<"$PLACE/web/data/agent_id")$PLACE/backup/tree$SITE
}

show_copy() {
    step "The copy arrives on the backup server, below the id of the web server's agent"
    await_copy
    say "    $(find "$RECEIVED" -type f | wc -l) files in $RECEIVED"
}

show_killed_daemon() {
    local killed started=${EPOCHREALTIME//[.,]/} took
    killed=$(<"$PLACE/server/bin/morvane_rsyncd.pid")
    step "Killing the rsync daemon of the backup server (process $killed there)"
    in_host server kill -KILL "$killed"
    await server '^server +running .* [1-9][0-9]* restarts?'
    took=$((${EPOCHREALTIME//[.,]/} - started))
    say "    back after $((took / 1000)) ms"
}

show_wrong_password() {
    step "Giving the web server a wrong password, and a change to push"
    ctl web secret set client <<<"not $PASSWORD" >/dev/null
    ctl web policy apply sentrel_feature - <<<'{"enabled": false}' >/dev/null || true
    echo '<p>new since the last backup</p>' >"$SITE/new.html"
    push
    await web 'last failure.*auth failed'
    await web '^backup .*remote pending'
    step "Giving it the right one: the backup catches up by itself"
    ctl web secret set client <<<"$PASSWORD" >/dev/null
    await_copy
    say "    on the backup server: $(find "$RECEIVED" -name new.html)"
}

# stop_host NAME: stops its agent, then the host and everything in it. Returns the agent's exit code.
stop_host() {
    local agent=${HOST_AGENT[$1]:-} tries stopped=0
    if [[ -n $agent ]]; then
        in_host "$1" kill -TERM "$(<"$PLACE/$1/run/agent.lock")" 2>/dev/null || true
        for ((tries = 0; tries < 300; tries++)); do
            kill -0 "$agent" 2>/dev/null || break
            sleep 0.1
        done
        kill -KILL "$agent" 2>/dev/null && warn "the agent of the host $1 did not stop on SIGTERM"
        wait "$agent" || stopped=$?
    fi
    if [[ -n ${HOST_KEEPER[$1]:-} ]]; then
        kill -KILL "${HOST_KEEPER[$1]}" 2>/dev/null || true
        wait "${HOST_KEEPER[$1]}" 2>/dev/null || true
    fi
    [[ $stopped -eq 0 ]] || warn "the agent of the host $1 ended with $stopped; see $PLACE/$1.out"
    return "$stopped"
}

clean_up_hosts() {
    local status=$? host
    trap - EXIT
    trap '' INT TERM HUP
    [[ ${#HOST_KEEPER[@]} -eq 0 ]] || step "Stopping both agents and removing both hosts"
    for host in web server; do
        stop_host "$host" || [[ $status -ne 0 ]] || status=1
    done
    if [[ $PLACE == "$WORK" ]]; then
        say "    logs: $WORK/{server,web}/log, policies: $WORK/{server,web}-policy.json"
    fi
    leave_place {server,web}/log {server,web}{.out,-policy.json}
    exit "$status"
}
