#!/usr/bin/env bash
# Does what the documents say, from the installation to the purge.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<'END'
Usage: scripts/walkthrough.sh [OPTION]...

Runs the commands of the documents as a reader would, in the order of docs/README.md: every block that begins with
"```sh run". It does so in an overlay of this machine's root, in namespaces of its own: the machine stays as it is.
There is no systemd in it; the agent is started under the capabilities of its unit.

  --package FILE  the Debian package, or a directory that has it; default: built by scripts/package.sh
  --output DIR    what the terminal showed, one file for each block; default: build/walkthrough
  --boot          boot the overlay with systemd-nspawn, so that systemd runs the agent by its unit. Needs the Debian
                  package systemd-container. The machine stays as it is
  --here          use this machine itself, with its systemd, instead of an overlay. It installs and purges the
                  package, and overwrites /var/www/html: only for a machine that you throw away afterwards
  -h, --help      print this text

What follows "run" in a block's first line: answer=TEXT is typed when a command asks; expect=TEXT must be in the output,
and the block runs again until it is, for 30 seconds at most; exit=CODE is the exit code, default 0; needs=PROGRAM skips
the block where there is no such program, needs=systemd where systemd does not run, and needs=overlay where a deploy is
not possible; last runs it after all others.
Exit code 0: every command did what the documents say; 77: this machine permits no namespaces.
END
}

PACKAGE='' OUTPUT=$ROOT/build/walkthrough HERE='' BOOT='' INSIDE_IT=''

parse_arguments() {
    while [[ $# -gt 0 ]]; do
        case $1 in
            --package | --output)
                [[ $# -ge 2 && -n $2 ]] || die "$1 needs a value"
                printf -v "$(tr '[:lower:]' '[:upper:]' <<<"${1#--}")" '%s' "$(realpath -m -- "$2")"
                shift
                ;;
            --here) HERE=yes ;;
            --boot) BOOT=yes ;;
            --inside) INSIDE_IT=yes ;;
            -h | --help) usage && exit 0 ;;
            *) usage >&2 && die "unknown option: $1" ;;
        esac
        shift
    done
}
parse_arguments "$@"
FOLDER=$OUTPUT/work
# shellcheck source=scripts/tests/machine.sh
source "$ROOT/scripts/tests/machine.sh"
readonly HOME_OF_READER=/root/walkthrough
RUN=0 SKIPPED_BLOCKS=0

# in_place COMMAND...: where the documents' commands run.
in_place() { if [[ -n $HERE ]]; then "$@"; else inside "$@"; fi; }
# place PATH: the same path seen from here.
place() { if [[ -n $HERE ]]; then echo "$1"; else echo "$MACHINE$1"; fi; }

# pages: in the order of the index.
pages() {
    sed '/^To look things up/,$d' "$ROOT/docs/README.md" | grep -oE '\]\([a-z-]+\.md\)' | tr -d '()]'
}

# extract PAGE: each block to run, as NN.sh with its words in NN.words, into a folder of the page's name.
extract() {
    local folder=$FOLDER/blocks/${1%.md}
    mkdir -p "$folder"
    awk -v folder="$folder" '
        /^```/ && inside { close(file); inside = 0; next }
        /^```sh run( |$)/ { inside = 1; file = sprintf("%s/%02d.sh", folder, ++count)
            words = $0; sub(/^```sh run ?/, "", words); print words >(file ".words"); close(file ".words"); next }
        inside { print >file }' "$ROOT/docs/$1"
}

# type_answer TEXT CAPTURE: as soon as a command asks.
type_answer() {
    local end=$((SECONDS + 60))
    [[ -n $1 ]] || return 0
    until grep -qE '(\[y/N\]|undo it:) $' "$2" 2>/dev/null; do
        ((SECONDS < end)) || return 0
        sleep 0.05
    done
    printf '%s\n' "$1"
}

# plain: without colours, and lines that a later text replaced.
plain() { tr -d '\r' | sed -E 's/\x1b\[[0-9;]*m//g; s/^.*\x1b\[K//'; }

# run_once SCRIPT ANSWER CAPTURE: at a terminal of 80 columns, as root in the reader's directory.
run_once() {
    local script=$1 answer=$2 capture=$3
    { echo 'set -e; stty cols 80 rows 40'; echo "PATH=$HOME_OF_READER/bin:\$PATH"; echo "cd $HOME_OF_READER"; cat "$script"; } >"$(place /run/block)"
    : >"$(place /run/capture)"
    { type_answer "$answer" "$(place /run/capture)"; } |
        in_place env TERM=xterm HOME=/root script -qefc 'bash /run/block' /run/capture >/dev/null 2>&1
    local status=$?
    { sed 's/^/$ /' "$script"; sed '1d;/^Script done on/,$d' "$(place /run/capture)"; } >"${capture%.txt}.raw"
    { sed 's/^/$ /' "$script"; sed '1d;/^Script done on/,$d' "$(place /run/capture)" | plain; } >"$capture"
    return "$status"
}

run_block() {
    local script=$1 name=$2 word answer='' expect='' code=0 status end capture=$OUTPUT/$2.txt
    # shellcheck disable=SC2013
    for word in $(cat "$script.words"); do
        case $word in
            answer=*) answer=${word#*=} ;;
            expect=*) expect=${word#*=} ;;
            exit=*) code=${word#*=} ;;
            needs=systemd) [[ -d $(place /run/systemd/system) ]] || { SKIPPED_BLOCKS=$((SKIPPED_BLOCKS + 1)) && return 0; } ;;
            needs=overlay) can_overlay || { SKIPPED_BLOCKS=$((SKIPPED_BLOCKS + 1)) && return 0; } ;;
            needs=*)
                in_place bash -c "type ${word#*=}" >/dev/null 2>&1 || { SKIPPED_BLOCKS=$((SKIPPED_BLOCKS + 1)) && return 0; }
                ;;
            last) ;;
            *) die "$name: unknown word $word" ;;
        esac
    done
    RUN=$((RUN + 1))
    end=$((SECONDS + 30))
    while :; do
        status=0
        run_once "$script" "$answer" "$capture" || status=$?
        [[ $status -eq $code ]] || { cat "$capture" >&2 && fail "$name ended with $status, not with $code"; }
        [[ -n $expect ]] || break
        ! grep -qE -- "$expect" <(sed '/^\$ /d' "$capture") || break
        ((SECONDS < end)) || { cat "$capture" >&2 && fail "$name does not show $expect"; }
        sleep 0.2
    done
    say "    $name"
}

run_page() {
    local page=$1 last=$2 script
    while IFS= read -r script; do
        [[ $(grep -cw last "$script.words" || true) -eq $last ]] || continue
        run_block "$script" "${page%.md}-$(basename "$script" .sh)"
    done < <(find "$FOLDER/blocks/${page%.md}" -name '*.sh' | sort)
}

# ---- What the reader has before the first command, and what happens between the pages.

# A deploy's overlay cannot lie on the overlay of this machine, so the installation lies on a directory of ours.
own_installation() {
    mkdir "$FOLDER/local"
    mount --bind "$FOLDER/local" "$MACHINE/usr/local"
    mkdir "$MACHINE/usr/local/bin"
}

# record_picture: what the README shows: a site is protected and attacked, and what is told of it.
record_picture() {
    local command number=0 captures=() answer=y
    cp -r -- "$ROOT/demo/site" "$(place /var/www/bakery)"
    while IFS= read -r command; do
        number=$((number + 1))
        echo "$command" >"$FOLDER/command"
        run_once "$FOLDER/command" "$answer" "$OUTPUT/picture-$number.txt" || fail "$command"
        answer=''
        captures+=("$OUTPUT/picture-$number.raw")
        # The next command sees the answer to this one.
        case $command in
            *index.html) await "the first alarm" has_alarms 1 ;;
            *shell.php) await "the second alarm" has_alarms 2 ;;
            *) ;;
        esac
    done <<'END'
morvanectl protect /var/www/bakery
echo '<h1>defaced</h1>' > /var/www/bakery/index.html
echo '<?php system($_GET["c"]);' > /var/www/bakery/blog/shell.php
grep title /var/www/bakery/index.html; ls /var/www/bakery/blog
morvanectl alarms --all
morvanectl status
END
    "$ROOT/scripts/terminal-picture.sh" "${captures[@]}" >"$OUTPUT/terminal.svg"
    in_place morvanectl unprotect /var/www/bakery --yes >"$FOLDER/unprotect.out" 2>&1 || fail "unprotect"
}

# check_picture: the README's is what the commands show, but for numbers.
check_picture() {
    diff <(without_numbers <"$ROOT/docs/terminal.svg") <(without_numbers <"$OUTPUT/terminal.svg") >&2 ||
        fail "docs/terminal.svg is not what the commands show now; copy $OUTPUT/terminal.svg there, and look at it"
}
without_numbers() { sed -E 's/id [0-9a-f-]+/id/; s/[0-9]+(\.[0-9]+)?/N/g; s/just now|N (second|minute)s? ago/T/; s/ [kMGT]?B / B /g'; }
has_alarms() { [[ $(in_place morvanectl alarms --json | wc -l) -ge $1 ]]; }

# can_overlay: a deploy can work here.
can_overlay() {
    local try
    try=$(place $INSTALLATION/try)
    mkdir -p "$try"/{lower,upper,work,tree}
    if in_place mount -t overlay -o "userxattr,lowerdir=$INSTALLATION/try/lower,upperdir=$INSTALLATION/try/upper,workdir=$INSTALLATION/try/work" \
        none "$INSTALLATION/try/tree" 2>/dev/null; then
        in_place umount "$INSTALLATION/try/tree"
        rm -rf "$try"
        return 0
    fi
    rm -rf "$try"
    return 1
}

# The limits that the package sets through systemd-sysctl.
set_limits() {
    local name value
    while IFS=' =' read -r name value; do
        echo "$value" >"$FOLDER/$name"
        mount --bind "$FOLDER/$name" "$MACHINE/proc/sys/${name//.//}"
    done < <(grep '^fs\.' "$ROOT/packaging/sysctl/50-sentrel.conf")
}

prepare_reader() {
    rm -rf "$(place /var/www)"
    mkdir -p "$(place $HOME_OF_READER)" "$(place /var/www)"
    cp -- "$PACKAGE" "$(place $HOME_OF_READER)/sentrel_1.0_$(dpkg --print-architecture).deb"
    cp -r -- "$ROOT/demo/site" "$(place /srv/site-source)"
    in_place bash -euc '
        export HOME=/root GIT_CONFIG_COUNT=3 GIT_CONFIG_KEY_0=user.name GIT_CONFIG_VALUE_0=reader \
            GIT_CONFIG_KEY_1=user.email GIT_CONFIG_VALUE_1=reader@localhost \
            GIT_CONFIG_KEY_2=init.defaultBranch GIT_CONFIG_VALUE_2=main
        cd /srv/site-source && chown -R 0:0 . && git init -q && git add -A && git commit -qm "release 1"
        git clone -q --no-hardlinks /srv/site-source /var/www/html'
}

# next_release NUMBER: what the developers have published since.
next_release() {
    echo "<h1>release $1</h1>" >"$(place /srv/site-source)/release.html"
    in_place env HOME=/root git -C /srv/site-source add -A
    in_place env HOME=/root git -C /srv/site-source -c user.name=r -c user.email=r@localhost commit -qm "release $1"
}

# ssh runs the command here. It takes the place of the other host.
prepare_ssh() {
    mkdir -p "$(place $HOME_OF_READER/bin)"
    cat >"$(place $HOME_OF_READER/bin/ssh)" <<'END'
#!/bin/sh
while [ "${1#-}" != "$1" ]; do shift 2; done
shift
cd /root/walkthrough && exec bash -c "$*"
END
    chmod 0755 "$(place $HOME_OF_READER/bin/ssh)"
}

# make_shop VERSION: a package with a site.
make_shop() {
    local tree
    tree=$(place $HOME_OF_READER)/shop
    mkdir -p "$tree/DEBIAN" "$tree/usr/share/shop"
    echo "shop $1" >"$tree/usr/share/shop/index.html"
    printf 'Package: shop\nVersion: %s\nArchitecture: all\nMaintainer: r <r@localhost>\nDescription: a shop\n' "$1" \
        >"$tree/DEBIAN/control"
    dpkg-deb --root-owner-group --build "$tree" "${tree}_$1.deb" >"$FOLDER/shop.out"
}

# make_app: a site with a library that composer has to fetch, from a folder.
make_app() {
    local app library
    app=$(place /var/www/app) library=$(place /srv/library)
    mkdir -p "$app" "$library"
    echo '{"name": "shop/library", "version": "1.0.0"}' >"$library/composer.json"
    echo '<?php // the library' >"$library/library.php"
    cat >"$app/composer.json" <<'END'
{"repositories": [{"packagist": false}, {"type": "path", "url": "/srv/library", "options": {"symlink": false}}],
 "require": {"shop/library": "*"}}
END
    chown -R www-data: "$app"
}

# The sites are what was deployed, the protection goes on, and the time of a deploy ends it.
check_deploys() {
    [[ $(<"$(place /usr/share/shop/index.html)") == 'shop 2' ]] || fail "the package's site is not upgraded"
    in_place morvanectl verify >"$FOLDER/verify.out" 2>&1 || fail "a deployed site is not what was approved"
    ! can_overlay || ! in_place bash -c 'type composer' >/dev/null 2>&1 ||
        [[ -e $(place /var/www/app/vendor/shop/library/library.php) ]] || fail "the app lacks its library"
    if can_overlay; then check_expiry; fi
}

check_expiry() {
    local id tree
    [[ $(in_place cat /var/www/current/index.html) == 'release 8' ]] || fail "the release link does not lead to release 8"
    { read -r id && read -r tree; } < <(in_place morvanectl deploy begin /var/www/html --for 1s)
    echo late >"$(place "$tree")/late.html" 2>/dev/null || true
    await "the end of deploy $id" no_deploy_is_open
    [[ ! -e $(place /var/www/html/late.html) ]] || fail "a deploy whose time is over was deployed"
    { read -r id && read -r tree; } < <(in_place morvanectl deploy begin /var/www/html --for 1m)
    echo new >"$(place "$tree")/new.html"
    in_place morvanectl deploy commit "$id" --yes >"$FOLDER/commit.out" 2>&1 || fail "deploy commit"
    [[ -e $(place /var/www/html/new.html) ]] || fail "the deploy is not on the site"
    await "the clean-up of deploys" deploys_are_clean
}
no_deploy_is_open() { [[ $(in_place morvanectl deploy list) == 'No deploy is open.' ]]; }
deploys_are_clean() { [[ -z $(ls "$(place $INSTALLATION)/data/deploy") ]]; }

before_page() {
    case $1 in
        protecting.md)
            # Mounts reach the agent, and not the other way (PrivateMounts=).
            [[ -n $HERE ]] || start_agent unshare --mount --propagation slave --
            record_picture
            # Another machine may have more to tell, such as limits of a container.
            [[ -n $HERE ]] || check_picture
            ;;
        deploying.md)
            prepare_ssh
            next_release 2
            cp -r -- "$ROOT/demo/site" "$(place $HOME_OF_READER)/site"
            cp -r -- "$ROOT/demo/site" "$(place $HOME_OF_READER)/public"
            mkdir -p "$(place /var/www/releases/7)" "$(place $HOME_OF_READER)/build"
            echo 'release 8' >"$(place $HOME_OF_READER)/build/index.html"
            echo 'release 7' >"$(place /var/www/releases/7)/index.html"
            ln -s /var/www/releases/7 "$(place /var/www/current)"
            make_shop 1
            in_place dpkg -i $HOME_OF_READER/shop_1.deb >"$FOLDER/shop.out" 2>&1
            in_place morvanectl protect /var/www/current --yes >"$FOLDER/current.out" 2>&1
            in_place morvanectl protect /usr/share/shop --yes >"$FOLDER/packaged.out" 2>&1
            make_shop 2
            make_app
            in_place morvanectl protect /var/www/app --yes >"$FOLDER/app.out" 2>&1
            ;;
        *) ;;
    esac
}

# check_backup_server: this host takes its own copies, and the daemon runs in its unit.
check_backup_server() {
    local daemon=$FOLDER/daemon
    [[ -d $(place /run/systemd/system) ]] || return 0
    cat >"$daemon.json" <<END
{"enabled": true, "content": {"rsync_x86_64_url": "file:///usr/bin/rsync", "backupserver_ip": "127.0.0.1",
 "rsync_x86_64_hash": "$(sha256sum /usr/bin/rsync | cut -d' ' -f1)", "backupserver_port": 873,
 "backupserver_path": "/srv/received from all"}}
END
    echo password | morvanectl secret set server >"$daemon.out" 2>&1 || fail "the password is not taken"
    morvanectl policy apply backupserver_feature "$daemon.json" >"$daemon.out" 2>&1 || { cat "$daemon.out" >&2 && fail "no backup server"; }
    (await "the daemon's unit" daemon_answers) || daemon_failed
    echo page >"$daemon.page"
    RSYNC_PASSWORD=password rsync "$daemon.page" rsync://morvane_agent@127.0.0.1:873/morvane_agent/page || fail "nothing is received"
    [[ -e '/srv/received from all/page' ]] || fail "what was received is elsewhere"
    kill -9 "$(daemon_pid)"
    await "the daemon again" daemon_answers
    systemd-analyze security morvane-rsyncd | tail -n 1 | tee "$OUTPUT/security-daemon.txt"
    systemd-analyze security morvane-agent | tail -n 1 | tee "$OUTPUT/security-agent.txt"
    sed -i 's/"enabled": true/"enabled": false/' "$daemon.json"
    morvanectl policy apply backupserver_feature "$daemon.json" >"$daemon.out" 2>&1 || [[ $? == 3 ]] || fail "the policy stays"
    await "the daemon's end" daemon_is_gone
}
daemon_pid() { systemctl show --property=MainPID --value morvane-rsyncd; }
daemon_answers() {
    [[ $(daemon_pid) -gt 0 ]] && morvanectl status | grep -q 'running as process' &&
        RSYNC_PASSWORD=password rsync rsync://morvane_agent@127.0.0.1:873/morvane_agent/ >"$FOLDER/listing" 2>&1
}
daemon_failed() {
    tail -n 20 "$INSTALLATION/log/agent.log" "$FOLDER/listing" >&2 || true
    journalctl --no-pager --lines=20 --unit=morvane-rsyncd >&2 || true
    fail "the backup server's daemon does not run"
}
daemon_is_gone() { ! systemctl is-active --quiet morvane-rsyncd; }

after_page() {
    case $1 in
        second-host.md) check_backup_server ;;
        deploying.md) check_deploys ;;
        installing.md) [[ -x $(place $INSTALLATION/bin/morvane_agent) ]] || fail "there is no agent" ;;
        *) ;;
    esac
}

check_purged() {
    [[ ! -e $(place $INSTALLATION) ]] || fail "the purge left: $(find "$(place $INSTALLATION)")"
    [[ -e $(place /var/www/html/index.html) ]] || fail "the purge removed the site"
}

walk() {
    local page
    [[ -n $HERE ]] || { trap show_logs EXIT && make_machine && own_installation && set_limits; }
    prepare_reader
    for page in $(pages); do
        extract "$page"
        step "$page"
        before_page "$page"
        run_page "$page" 0
        after_page "$page"
    done
    # As systemd does when the package is removed.
    [[ -n $HERE ]] || stop_agent
    for page in $(pages); do run_page "$page" 1; done
    check_purged
    say "$RUN blocks of the documents did what they say, $SKIPPED_BLOCKS were left out; the terminal: $OUTPUT"
}

# boot: walks in the overlay, which systemd-nspawn boots. Nothing but our own files is below $FOLDER/local.
boot() {
    local there=$MACHINE/opt/walkthrough part
    mkdir -p "$FOLDER/machine"/{upper,work} "$MACHINE" "$FOLDER/local/bin"
    mount -t overlay -o "lowerdir=/,upperdir=$FOLDER/machine/upper,workdir=$FOLDER/machine/work" none "$MACHINE"
    rm -f "$MACHINE/usr/sbin/policy-rc.d"  # images of containers forbid with it to start services
    mkdir -p "$there"
    for part in README.md docs demo scripts packaging; do cp -a -- "$ROOT/$part" "$there/"; done
    cp -- "$PACKAGE" "$there/"
    printf '[Unit]\nRequires=basic.target walk.service\n' >"$MACHINE/etc/systemd/system/walk.target"
    cat >"$MACHINE/etc/systemd/system/walk.service" <<'END'
[Unit]
After=basic.target
[Service]
Type=oneshot
TimeoutStartSec=5min
WorkingDirectory=/opt/walkthrough
StandardOutput=file:/opt/walkthrough/log
StandardError=inherit
ExecStart=/opt/walkthrough/scripts/walkthrough.sh --here --package /opt/walkthrough --output /opt/walkthrough/out
ExecStart=/bin/touch /opt/walkthrough/passed
ExecStopPost=/bin/systemctl --no-block poweroff
END
    step "Booting the overlay"
    timeout -k 5 400 systemd-nspawn -q -D "$MACHINE" --register=no --keep-unit --private-network \
        --bind="$FOLDER/local:/usr/local" --boot -- systemd.unit=walk.target >"$OUTPUT/boot.txt" 2>&1 </dev/null || true
    cat "$there/log" || { tail "$OUTPUT/boot.txt" >&2 && die "it did not boot"; }
    cp -r -- "$there/out/." "$OUTPUT/"
    [[ -e $there/passed ]]
}

main() {
    if [[ -n $INSIDE_IT ]]; then
        if [[ -n $BOOT ]]; then boot; else walk; fi
        return
    fi
    if [[ -z $PACKAGE ]]; then
        PACKAGE=$ROOT/build/packages
        "$ROOT/scripts/package.sh" --output "$PACKAGE" --no-debug --no-lint
    fi
    [[ ! -d $PACKAGE ]] || PACKAGE=$(find "$PACKAGE" -name 'sentrel_*.deb' -printf '%T@ %p\n' | sort -n | tail -n 1 | cut -d' ' -f2-)
    [[ $EUID -eq 0 ]] || die "this needs root"
    [[ -e $PACKAGE ]] || die "there is no $PACKAGE"
    rm -rf --one-file-system "$OUTPUT"
    mkdir -p "$FOLDER"
    if [[ -n $HERE ]]; then
        ! dpkg-query -W sentrel >/dev/null 2>&1 || die "the package is installed here; this is for a fresh machine"
        walk
    elif [[ -n $BOOT ]]; then
        install_dependencies systemd-container
        unshare --mount --propagation private -- "$0" --package "$PACKAGE" --output "$OUTPUT" --boot --inside
        rm -rf --one-file-system "$FOLDER"
    else
        enter_machine "$0" --package "$PACKAGE" --output "$OUTPUT" --inside
    fi
}

main
