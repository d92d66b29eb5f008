#!/usr/bin/env bash
# manuals.sh STAGE: the manual pages are without warnings and name every option, command, key of the policies and
# key of agent.json; the completion of morvanectl offers what its help names. STAGE is the built installation.
set -euo pipefail

readonly STAGE=$1
ROOT=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd -P)
readonly ROOT
FOLDER=$(mktemp -d)
readonly FOLDER
trap 'rm -rf "$FOLDER"' EXIT
FAULTS=0 CHECKED=0

fault() {
    printf 'FAILED: %s\n' "$*" >&2
    FAULTS=$((FAULTS + 1))
}

# make_page NAME PROGRAM: the page as debian/rules makes it, and its text in $FOLDER/NAME.txt.
make_page() {
    "$ROOT/packaging/man/options.sh" "$ROOT/packaging/man/$1.scd" "$2" | scdoc >"$FOLDER/$1"
    LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=500 man --warnings -E UTF-8 -l -Tutf8 -Z "$FOLDER/$1" \
        >/dev/null 2>"$FOLDER/warnings"
    [[ ! -s $FOLDER/warnings ]] || fault "$1: $(cat "$FOLDER/warnings")"
    LC_ALL=C.UTF-8 MANROFFSEQ='' MANWIDTH=500 man -E UTF-8 -l "$FOLDER/$1" | col -b >"$FOLDER/$1.txt"
}

# expect_named PAGE WORD...: each is a word of the page's text.
expect_named() {
    local page=$1 word
    shift
    for word in "$@"; do
        CHECKED=$((CHECKED + 1))
        grep -qE -- "(^|[^a-zA-Z_-])${word//./\\.}([^a-zA-Z_-]|\$)" "$FOLDER/$page.txt" ||
            fault "$page does not name $word"
    done
}

# completions WORD...: what the completion offers after these words; the last one is being typed.
completions() {
    # shellcheck disable=SC2016
    PATH=$STAGE/bin:$PATH bash -c 'source "$0" && COMP_WORDS=(morvanectl "$@") COMP_CWORD=$#
        _morvanectl morvanectl && printf "%s\n" "${COMPREPLY[@]}"' \
        "$ROOT/packaging/completion/morvanectl" "$@"
}

# names TITLE: of the entries of that section of a help. Does not share its reading with the scripts under test.
names() { awk -v title="$1:" '$0 == title, /^$/' | grep -oE '^  [^ ]+' | tr -d ' ' | tr ',' '\n' || true; }

# check_command WORD...: the page and the completion name all options and commands of this command and below.
check_command() {
    local help options commands sub
    help=$("$STAGE/bin/morvanectl" "$@" --help)
    mapfile -t options < <(names Options <<<"$help")
    mapfile -t commands < <(names Subcommands <<<"$help")
    expect_named morvanectl.8 "${options[@]}" "${commands[@]}"
    [[ $(completions "$@" -) == "$(printf '%s\n' "${options[@]}")" ]] ||
        fault "completion of \"$* -\": $(completions "$@" - | tr '\n' ' ')"
    [[ ${#commands[@]} -gt 0 ]] || return 0
    [[ $(completions "$@" '') == "$(printf '%s\n' "${commands[@]}")" ]] ||
        fault "completion of \"$*\": $(completions "$@" '' | tr '\n' ' ')"
    for sub in "${commands[@]}"; do
        check_command "$@" "$sub"
    done
}

main() {
    local page
    for page in morvanectl.8 morvane_agent.8 morvane_sentry.8 sentrel_collector.8 agent.json.5 sentrel-policy.5; do
        make_page "$page" "$STAGE/bin/${page%.*}"
    done
    check_command
    mapfile -t words < <("$STAGE/bin/morvane_agent" --help | names Options)
    expect_named morvane_agent.8 "${words[@]}"
    mapfile -t words < <("$STAGE/bin/morvane_sentry" --help | names Options)
    expect_named morvane_sentry.8 "${words[@]}"
    mapfile -t words < <(for page in '' status reports events results act acts sign publish rollout rollouts "policy sign" "policy publish" "policy keygen"; do
        # shellcheck disable=SC2086
        "$STAGE/bin/sentrel_collector" $page --help | names Options
    done)
    expect_named sentrel_collector.8 "${words[@]}"
    mapfile -t words < <(sed -n '/^| Key /,/^$/p' "$ROOT/docs/fleet.md" | grep -oE '^. .[a-z_]{3,}. ' | tr -cd 'a-z_\n')
    expect_named sentrel_collector.8 "${words[@]}"
    mapfile -t words < <(grep -oE '"[a-z_]+":' "$STAGE/conf/agent.json" | tr -d '":')
    expect_named agent.json.5 "${words[@]}"
    mapfile -t words < <(sed -n '/^## Settings of the agent/,/^\*\*/p' "$ROOT/docs/options.md" | grep -oE '"[a-z_]+":' | tr -d '":')
    expect_named agent.json.5 "${words[@]}"
    for page in sentrel backupserver; do
        mapfile -t words < <(grep -E '^ +"[a-z_]+": \{$' "$ROOT/docs/policy-${page}_feature.schema.json" |
            grep -oE '[a-z_]+' | grep -vxE 'properties|items|if|then')
        expect_named sentrel-policy.5 "${words[@]}"
    done
    [[ $(completions secret set '') == $'server\nclient' ]] || fault "completion of the roles"
    ((CHECKED > 100)) || fault "only $CHECKED names were checked"
    echo "$CHECKED names checked"
    return $((FAULTS > 0))
}

main
