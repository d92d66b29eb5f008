#!/usr/bin/env bash
# package.sh PACKAGES FOLDER: installs, upgrades, removes and purges the Debian package in PACKAGES, version 1.0, in an
# overlay of the machine's root, which stays as it is. The agent of the package protects sites there, under the
# capabilities of its unit and without systemd; stand-ins note what the package asks systemd for.
set -euo pipefail

readonly PACKAGES=$1 FOLDER=$2
# Copies that lie below the installation, and a protected site that does.
readonly SITE=/srv/site OWN_SITE=/usr/local/morvane/www COPIES=/usr/local/morvane/data/copies
readonly OWN_COPIES=/var/backups/sentrel
ROOT=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd -P)
readonly ROOT
# shellcheck source=scripts/tests/machine.sh
source "$ROOT/scripts/tests/machine.sh"

# stand_in_for_systemd: looks as if it ran, and notes in /run/asked what it is asked for.
stand_in_for_systemd() {
    mkdir -p "$MACHINE/run/systemd/system"
    rm -f "$MACHINE/usr/bin/deb-systemd-invoke"
    printf '#!/bin/sh\necho "$*" >>/run/asked\n' >"$MACHINE/usr/bin/deb-systemd-invoke"
    chmod 0755 "$MACHINE/usr/bin/deb-systemd-invoke"
}
was_asked() { grep -qE -- "$1" "$MACHINE/run/asked" 2>/dev/null; }

# packages ARGUMENT...: dpkg within the machine; its output goes to $FOLDER/dpkg.out.
packages() {
    inside DEBIAN_FRONTEND=noninteractive dpkg --no-triggers "$@" >"$FOLDER/dpkg.out" 2>&1 || fail "dpkg $*"
}

# bump: a package with the next version, which differs in nothing else.
bump() {
    dpkg-deb --raw-extract "$PACKAGES"/sentrel_1.0_*.deb "$FOLDER/next"
    sed -i 's/^Version: .*/Version: 1.1/' "$FOLDER/next/DEBIAN/control"
    dpkg-deb --root-owner-group -Znone --build "$FOLDER/next" "$MACHINE/tmp/sentrel_1.1.deb" >"$FOLDER/bump.out"
    cp "$PACKAGES"/sentrel_1.0_*.deb "$MACHINE/tmp/sentrel_1.0.deb"
}

policy() {
    local arch hash
    arch=$(uname -m) hash=$(sha256sum /usr/bin/rsync | cut -d' ' -f1)
    cat <<END
{"enabled": true, "content": {"os_type": 0, "backup_type": 0,
  "rsync_${arch}_url": "file:///usr/bin/rsync", "rsync_${arch}_hash": "$hash",
  "rsync_${arch}_tx_url": "file:///usr/bin/rsync", "rsync_${arch}_tx_hash": "$hash",
  "dirlist": [
    {"enable": true, "auto_restore": true, "filepath": "$SITE", "backup_path": "$COPIES"},
    {"enable": true, "auto_restore": true, "filepath": "$OWN_SITE", "backup_path": "$OWN_COPIES"}]}}
END
}

protects() {
    local status
    status=$(inside morvanectl status --json) || true
    [[ $(grep -oE '"state" *: *"ready"' <<<"$status" | wc -l) -eq 2 && $status =~ \"local_pending\"\ *:\ *false ]]
}
has_content() { [[ $(cat "$MACHINE$1" 2>/dev/null) == "$2" ]]; }
has_alarm() { inside morvanectl alarms --json | grep -qF "$1"; }

# defacing_is_undone PAGE: and reported.
defacing_is_undone() {
    local good
    good=$(<"$MACHINE$1")
    echo defaced >"$MACHINE$1"
    await "the restore of $1" has_content "$1" "$good"
    await "the alarm of $1" has_alarm "$1"
}

# sums PATH...: of all files there.
sums() { (cd "$MACHINE" && find "${@/#/.}" -type f -print0 | sort -z | xargs -0r sha256sum); }
state() { sums "$INSTALLATION"/{conf,data/policies,data/baseline,data/agent_id}; }
sites_and_copies() { sums "$SITE" "$COPIES" "$OWN_SITE" "$OWN_COPIES"; }

test_install() {
    packages -i /tmp/sentrel_1.0.deb
    [[ -L $MACHINE/etc/systemd/system/multi-user.target.wants/morvane-agent.service ]] || fail "it is not enabled"
    was_asked '^start .*morvane-agent' || fail "systemd was not asked to start the agent"
    inside /var/lib/dpkg/info/sentrel.postinst configure 1.0 || fail "postinst fails when it runs again"
    [[ $(inside morvanectl --version) == "morvanectl "* ]] || fail "there is no morvanectl"
}

test_protection() {
    echo '<h1>welcome</h1>' >"$MACHINE$SITE/index.html"
    echo '<h1>own</h1>' >"$MACHINE$OWN_SITE/own.html"
    chown 33:33 "$MACHINE$SITE" "$MACHINE$SITE/index.html"
    # shellcheck disable=SC2119
    start_agent
    echo password | inside morvanectl secret set client >"$FOLDER/secret.out" || fail "no secret was set"
    policy | inside morvanectl policy apply sentrel_feature - >"$FOLDER/apply.out" 2>&1 || fail "policy apply"
    await "the first backup" protects
    defacing_is_undone "$SITE/index.html"
    defacing_is_undone "$OWN_SITE/own.html"
}

# The agent's own files are as before, and the new agent goes on where the old one ended.
test_upgrade() {
    local before
    sed -i 's/"task_period_ms": 3000/"task_period_ms": 2999/' "$MACHINE$INSTALLATION/conf/agent.json"
    stop_agent
    before=$(state)
    rm -f "$MACHINE/run/asked"
    packages -i /tmp/sentrel_1.1.deb
    was_asked '^restart .*morvane-agent' || fail "systemd was not asked to restart the agent"
    [[ $(state) == "$before" ]] || fail "the upgrade changed: $(diff <(echo "$before") <(state))"
    inside "$INSTALLATION/bin/morvane_agent" --check >"$FOLDER/check.out" 2>&1 || fail "the kept policy has errors"
    # shellcheck disable=SC2119
    start_agent
    await "the protection after the upgrade" protects
    has_alarm "$SITE/index.html" || fail "the alarms are gone"
    defacing_is_undone "$SITE/index.html"
}

# systemd does not run, but an agent does.
test_remove() {
    local before agent=$AGENT_PID
    before=$(state)
    rm -r "$MACHINE/run/systemd"
    packages -r sentrel
    await "the end of the agent" has_ended "$agent"
    AGENT_PID=''
    [[ ! -e $MACHINE$INSTALLATION/bin ]] || fail "programs are left: $(ls "$MACHINE$INSTALLATION/bin")"
    [[ $(grep -v '/\.popt$' <<<"$before") == "$(state)" ]] || fail "the removal changed: $(diff <(echo "$before") <(state))"
}

# purges NAME...: the purge leaves only these below the installation.
purges() {
    local left expected
    packages -P sentrel
    left=$(cd "$MACHINE$INSTALLATION" 2>/dev/null && find . -mindepth 1 -maxdepth 2 | sort) || true
    expected=$(printf '%s\n' "$@")
    [[ $left == "$expected" ]] || fail "the purge left: $left"
}

test_purge() {
    local before
    before=$(sites_and_copies)
    purges ./data ./data/copies ./www ./www/own.html
    [[ $(sites_and_copies) == "$before" ]] || fail "the purge changed sites or copies"
    grep -q "$COPIES stays" "$FOLDER/dpkg.out" || fail "the purge does not say what stays"
}

# Copies in a directory of the agent, named by no kept policy any more; and a policy that the scripts cannot read.
test_purge_of_odd_places() {
    local baseline=$MACHINE$INSTALLATION/data/baseline policies=$MACHINE$INSTALLATION/data/policies
    rm -r "$MACHINE${INSTALLATION:?}"
    packages -i /tmp/sentrel_1.0.deb
    mkdir -p "$baseline/mine" "$policies"
    touch "$baseline/mine/.morvane-backup-id" "$baseline/mine/page"
    echo '{"content": {"dirlist": []}}' >"$policies/sentrel_feature.json"
    purges ./data ./data/baseline
    [[ -e $baseline/mine/page ]] || fail "the copy is gone"
    rm -r "$baseline"
    packages -i /tmp/sentrel_1.0.deb
    mkdir -p "$policies"
    echo '{"content": {"dirlist": [{"filepath": "\/us\u0072/local"}]}}' >"$policies/sentrel_feature.json"
    purges ./data ./data/policies
    rm -r "$policies"
    packages -i /tmp/sentrel_1.0.deb
    packages -P sentrel
    [[ ! -e $MACHINE$INSTALLATION ]] || fail "the purge left $(find "$MACHINE$INSTALLATION")"
}

# The centre of a fleet is another machine: no agent is there.
test_collector() {
    cp "$PACKAGES"/sentrel-collector_1.0_*.deb "$MACHINE/tmp/collector.deb"
    packages -i /tmp/collector.deb
    [[ $(inside sentrel_collector --version) == "sentrel_collector "* ]] || fail "there is no sentrel_collector"
    inside getent passwd sentrel-collector >"$FOLDER/user.out" || fail "the collector has no user"
    [[ -e $MACHINE/lib/systemd/system/sentrel-collector.service ]] || fail "the collector has no unit"
    mkdir -p "$MACHINE/var/lib/sentrel-collector"
    packages -P sentrel-collector
    [[ ! -e $MACHINE/usr/lib/sentrel-collector && ! -e $MACHINE/var/lib/sentrel-collector ]] ||
        fail "the purge left parts of the collector"
}

run_inside() {
    trap show_logs EXIT
    make_machine
    mkdir -p "$MACHINE$SITE" "$MACHINE$OWN_SITE" "$MACHINE$(dirname "$COPIES")"
    stand_in_for_systemd
    bump
    test_install
    test_protection
    test_upgrade
    test_remove
    test_purge
    test_purge_of_odd_places
    test_collector
    echo "installed, upgraded, removed and purged"
}

main() {
    if [[ ${3:-} == inside ]]; then
        run_inside
        return
    fi
    rm -rf --one-file-system "$FOLDER"
    enter_machine "$0" "$PACKAGES" "$FOLDER" inside
}

main "$@"
