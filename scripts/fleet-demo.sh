# shellcheck shell=bash
# The demo of a fleet; quickstart.sh sources it. Owns broker, collector and three agents, all on loopback. Each
# agent has a mount namespace of its own, in which its site has the same path as those of the others.

readonly FLEET_HOSTS=(web1 web2 web3)
declare -A FLEET_AGENT=() FLEET_ID=()
BROKER_PID='' BROKER_PORT='' COLLECTOR_PID='' CENTRE='' CONSOLE_URL='' SHOWN=''

# demo_fleet: runs the demo, in a mount namespace, as root.
demo_fleet() {
    CENTRE=$PLACE/centre
    rm -rf "$CENTRE" "$PLACE"/{web1,web2,web3,site,backup}
    mkdir -p "$CENTRE" "$PLACE"/{site,backup}
    chmod 0700 "$CENTRE"
    start_centre
    start_fleet_agents
    show_waves
    show_attack
    show_rejection
    show_act
    show_killed_host
    say
    say "Everything went as it should."
    [[ ! -t 0 || ! -t 1 ]] || linger
}

collector() { "$STAGE/bin/sentrel_collector" --config "$CENTRE/collector.json" "$@"; }

# await_centre SECONDS COMMAND...: waits until the command succeeds.
await_centre() {
    local seconds=$1 started=$SECONDS
    shift
    until "$@"; do
        ((SECONDS - started < seconds + DEADLINE_MS / 1000)) ||
            die "this never became true: $*; see $CENTRE"
        sleep 0.2
    done
}

# free_port: prints one of loopback.
free_port() {
    local port
    for port in $(shuf -n 50 -i 20000-32000); do
        (: <"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port" && return; }
    done
    die "there is no free port"
}

make_certificates() {
    local new=(openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes)
    {
        "${new[@]}" -x509 -days 2 -subj "/CN=demo CA" -keyout "$CENTRE/ca.key" -out "$CENTRE/ca.pem"
        "${new[@]}" -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 \
            -keyout "$CENTRE/broker.key" -out "$CENTRE/broker.csr"
        openssl x509 -req -in "$CENTRE/broker.csr" -days 2 -CA "$CENTRE/ca.pem" -CAkey "$CENTRE/ca.key" \
            -CAcreateserial -copy_extensions copy -out "$CENTRE/broker.pem"
    } >"$CENTRE/openssl.out" 2>&1 || die "openssl failed; see $CENTRE/openssl.out"
}

# start_broker PORT: with the sample configuration and access list of the documents.
start_broker() {
    local user
    make_certificates
    (umask 077 && head -c 24 /dev/urandom | base64 >"$CENTRE/password" && : >"$CENTRE/passwords")
    for user in collector operator "${FLEET_ID[@]}"; do
        mosquitto_passwd -b "$CENTRE/passwords" "$user" "$(<"$CENTRE/password")"
    done
    install -m 0600 "$ROOT/docs/fleet/acl" "$CENTRE/acl"
    {
        printf 'user root\npersistence false\n'
        sed -e "s#/etc/mosquitto/sentrel#$CENTRE#" -e "s#^listener 8883#listener $1 127.0.0.1#" \
            "$ROOT/docs/fleet/mosquitto.conf"
    } >"$CENTRE/mosquitto.conf"
    setpriv --pdeathsig KILL -- /usr/sbin/mosquitto -c "$CENTRE/mosquitto.conf" \
        >"$CENTRE/mosquitto.out" 2>&1 </dev/null 9>&- &
    BROKER_PID=$!
}

# broker_section PORT USER
broker_section() {
    printf '"broker": {"host": "127.0.0.1", "port": %s, "ca_file": "%s", "user": "%s", "password_file": "%s"}' \
        "$1" "$CENTRE/ca.pem" "$2" "$CENTRE/password"
}

start_centre() {
    local port host secret
    port=$(free_port)
    for host in "${FLEET_HOSTS[@]}"; do FLEET_ID[$host]=$(</proc/sys/kernel/random/uuid); done
    step "Starting a broker, and a collector with its console"
    start_broker "$port"
    printf '{%s, "database": "%s", "console": {"port": %s}}\n' "$(broker_section "$port" collector)" \
        "$CENTRE/fleet.db" "$(free_port)" >"$CENTRE/collector.json"
    BROKER_PORT=$port
    setpriv --pdeathsig KILL -- "$STAGE/bin/sentrel_collector" --config "$CENTRE/collector.json" run \
        >"$CENTRE/collector.out" 2>&1 </dev/null 9>&- &
    COLLECTOR_PID=$!
    await_centre 10 grep -q "connected to the broker" "$CENTRE/collector.out"
    CONSOLE_URL=$(sed -n 's/.*the console is at //p' "$CENTRE/collector.out")
    secret=$(head -c 9 /dev/urandom | base64)
    collector user add --role admin demo <<<"$secret" >/dev/null
    collector policy keygen --key "$CENTRE/operator.key" --public "$CENTRE/fleet.pub" >/dev/null
    say "    the page: $CONSOLE_URL   user: demo   password: $secret"
    say "    the operator's key, to sign there: $CENTRE/operator.key"
}

# start_fleet_agent HOST: the agent sees its own site at $PLACE/site, and its own host name.
start_fleet_agent() {
    local host=$1 folder=$PLACE/$1
    # shellcheck disable=SC2016
    setpriv --pdeathsig KILL -- unshare --mount --uts --propagation private -- "$BASH" -c '
        set -e
        printf %s "$1" >/proc/sys/kernel/hostname
        mount --bind "$2/$1/site" "$2/site"
        mount --bind "$2/$1/backup" "$2/backup"
        exec "$2/$1/bin/morvane_agent"' agent "$host" "$PLACE" >"$folder.out" 2>&1 </dev/null 9>&- &
    FLEET_AGENT[$host]=$!
    "$folder/bin/sentrel_demo" answer --socket "$folder/run/agent.sock" --deadline-ms 60000 ||
        die "the agent of $host does not answer; its output is in $folder.out"
}

start_fleet_agents() {
    local host folder
    step "Starting the agents of ${FLEET_HOSTS[*]}, which join the fleet"
    for host in "${FLEET_HOSTS[@]}"; do
        folder=$PLACE/$host
        install_stage "$folder"
        mkdir -p "$folder"/{data,site,backup}
        chmod 0700 "$folder/backup"
        echo "${FLEET_ID[$host]}" >"$folder/data/agent_id"
        sed -i '$d' "$folder/conf/agent.json"
        printf ', "fleet": {%s, "policy_key": "%s", "groups": ["web"], "heartbeat_seconds": 2}}\n' \
            "$(broker_section "$BROKER_PORT" "${FLEET_ID[$host]}")" "$CENTRE/fleet.pub" >>"$folder/conf/agent.json"
        cp -r -- "$ROOT/demo/site/." "$folder/site"
        start_fleet_agent "$host"
    done
    await_centre 20 hosts_are_known
}

hosts_are_known() { [[ $(collector status --json | grep -o '"agent_id"' | wc -l) -eq ${#FLEET_HOSTS[@]} ]]; }

# roll_out NUMBER POLICY: signs the policy for the group and hands it to the collector.
roll_out() {
    collector policy sign --key "$CENTRE/operator.key" --number "$1" --group web sentrel_feature "$2" >"$CENTRE/signed.json"
    collector rollout --percent 5 "$CENTRE/signed.json" | indent
}

# rollout_is STATE: of the newest rollout; prints how far it is when that has changed.
rollout_is() {
    local now line
    now=$(collector rollouts --limit 1)
    line=$(sed -E 's/.*"answered":([0-9]+).*"hosts":([0-9]+).*"reason":"([^"]*)".*"state":"([a-z]+)".*"wave":([0-9]+).*/wave \5: \1 of \2 hosts have answered; \4 \3/' <<<"$now")
    [[ $line == "$SHOWN" ]] || say "    $line"
    SHOWN=$line
    [[ $now == *"\"state\":\"$1\""* ]]
}

show_waves() {
    step "A policy, signed by the operator, goes to one host, and to the others 15 s after that one has taken it"
    "$STAGE/bin/sentrel_demo" policy --tree "$PLACE/site" --backup "$PLACE/backup" \
        --rsync "$(realpath -e /usr/bin/rsync)" >"$CENTRE/policy.json"
    roll_out 1 "$CENTRE/policy.json"
    await_centre 60 rollout_is "done"
    await_centre 30 all_are_healthy
}

all_are_healthy() { collector status >/dev/null; }

show_attack() {
    local page=$PLACE/web1/site/index.html started
    step "An attack on web1: its front page is replaced"
    cp -- "$page" "$CENTRE/index.html"
    started=${EPOCHREALTIME//[.,]/}
    echo '<h1>owned</h1>' >"$page"
    await_centre 10 cmp -s "$page" "$CENTRE/index.html"
    await_centre 10 alarm_of web1
    say "    the page is back, and the alarm at the centre after $(((${EPOCHREALTIME//[.,]/} - started) / 1000)) ms:"
    collector reports --host "${FLEET_ID[web1]}" --kind alarm --limit 1 |
        grep -oE '"outcome":"[a-z]+"|\\"file_path\\":\\"[^"]*' | tr -d '\134' | indent
}

alarm_of() { [[ -n $(collector reports --host "${FLEET_ID[$1]}" --kind alarm) ]]; }

show_rejection() {
    step "A policy that the first host rejects never reaches the others"
    sed 's#"filepath" *: *"[^"]*"#"filepath": "not absolute"#' "$CENTRE/policy.json" >"$CENTRE/wrong.json"
    roll_out 2 "$CENTRE/wrong.json"
    await_centre 30 rollout_is stopped
    [[ $SHOWN == *"wave 1: 1 of 3"* ]] || die "the wrong policy went to more than one host"
}

show_act() {
    step "The operator pauses all three for a release, signed and good once; then somebody sends it again"
    collector act pause --key "$CENTRE/operator.key" --group web --for 60 --reason "release 7" "$PLACE/site" >"$CENTRE/act.json"
    collector publish --user operator "$CENTRE/act.json" | indent
    await_centre 20 acts_are 3
    collector publish --user operator "$CENTRE/act.json" >/dev/null
    await_centre 20 grep -q "is refused: it was carried out already" "$PLACE/web1/log/agent.log"
    say "    all three pause; the second time they refuse it, and tell the centre"
}

acts_are() { [[ $(collector acts | grep -oF '\"verdict\":\"done\"' | wc -l) -eq $1 ]]; }

show_killed_host() {
    local started=${EPOCHREALTIME//[.,]/}
    step "web3 is killed"
    kill -KILL "${FLEET_AGENT[web3]}"
    wait "${FLEET_AGENT[web3]}" 2>/dev/null || true
    unset 'FLEET_AGENT[web3]'
    await_centre 60 silence_is_told
    say "    an alarm after $(((${EPOCHREALTIME//[.,]/} - started) / 1000)) ms:"
    collector events --limit 1 | indent
}

silence_is_told() { collector events | grep -q "\"agent_id\":\"${FLEET_ID[web3]}\".*\"kind\":\"silent\""; }

linger() {
    say
    say "Look at $CONSOLE_URL; Enter ends the demo."
    read -r || true
}

clean_up_fleet() {
    local status=$? host process
    trap - EXIT
    trap '' INT TERM HUP
    step "Stopping the agents, the collector and the broker"
    for host in "${!FLEET_AGENT[@]}"; do
        stop_process "${FLEET_AGENT[$host]}" || [[ $status -ne 0 ]] || status=1
    done
    for process in "$COLLECTOR_PID" "$BROKER_PID"; do
        [[ -z $process ]] || stop_process "$process" >/dev/null 2>&1 || true
    done
    if [[ $status -eq 0 ]]; then
        rm -rf "$CENTRE"  # with the keys
    fi
    leave_place {web1,web2,web3}/log {web1,web2,web3}.out centre/{collector,mosquitto}.out
    exit "$status"
}
