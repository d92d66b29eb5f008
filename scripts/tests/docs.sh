#!/usr/bin/env bash
# docs.sh STAGE: the pages of README and docs/ are right in what a script can tell: each link leads to a page and a
# heading, the index has every page, each command of a block can be parsed, and each command and option of morvanectl
# in the pages exists. Each reason and warning of the status has its section, and no section is of another word.
# STAGE is the built installation.
set -euo pipefail

readonly STAGE=$1
ROOT=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/../.." && pwd -P)
readonly ROOT
FOLDER=$(mktemp -d)
readonly FOLDER
trap 'rm -rf "$FOLDER"' EXIT
FAULTS=0 LINKS=0 BLOCKS=0 COMMANDS=0

fault() {
    printf 'FAILED: %s\n' "$*" >&2
    FAULTS=$((FAULTS + 1))
}

# prose PAGE: the page without its fenced blocks.
prose() { awk '/^```/ { inside = !inside; next } !inside' "$1"; }

# anchors PAGE: of its headings, as GitHub makes them.
anchors() {
    prose "$1" | sed -nE 's/^#+ //p' | tr '[:upper:]' '[:lower:]' | sed -E 's/\]\([^)]*\)//g; s/[^a-z0-9 _-]//g; s/ /-/g'
}

check_links() {
    local page=$1 target file anchor
    while IFS= read -r target; do
        LINKS=$((LINKS + 1))
        file=${target%%#*} anchor=''
        [[ $target != *'#'* ]] || anchor=${target#*#}
        file=${file:+$(dirname -- "$page")/$file}
        file=${file:-$page}
        if [[ ! -e $file ]]; then
            fault "$page: $target leads to no file"
        elif [[ -n $anchor ]] && ! grep -qxF -- "$anchor" <(anchors "$file"); then
            fault "$page: $target leads to no heading"
        fi
    done < <(prose "$page" | grep -oE '\]\([^)]+\)' | sed -E 's/^\]\((.*)\)$/\1/' | grep -vE '^https?:')
}

# blocks PAGE: its blocks of shell, each in a file of its own, and their names.
blocks() {
    awk -v name="$FOLDER/$(basename -- "$1")" '
        /^```/ && inside { close(file); inside = 0; next }
        /^```sh( |$)/ { inside = 1; file = name "." ++count; printf "" >file; print file; next }
        /^```/ { inside = 1; file = "/dev/null"; next }
        inside { print >file }' "$1"
}

# load_help WORD...: notes the subcommands and options of the command in SUBCOMMANDS and OPTIONS.
declare -A SUBCOMMANDS OPTIONS
load_help() {
    [[ ! -v "OPTIONS[morvanectl $*]" ]] || return 0
    local help title
    help=$("$STAGE/bin/morvanectl" "$@" --help)
    # shellcheck disable=SC2016
    title='$0 == title, /^$/ { if (/^  [^ ]/) { gsub(",", "\n", $1); print $1 } }'
    SUBCOMMANDS["morvanectl $*"]=$'\n'$(awk -v title=Subcommands: "$title" <<<"$help")$'\n'
    OPTIONS["morvanectl $*"]=$'\n'$(awk -v title=Options: "$title" <<<"$help")$'\n'
}

# check_command PAGE WORD...: the words after "morvanectl" name a command and options that it has.
check_command() {
    local page=$1 word options known command=()
    shift
    COMMANDS=$((COMMANDS + 1))
    load_help
    known=${SUBCOMMANDS["morvanectl "]} options=${OPTIONS["morvanectl "]}
    for word in "$@"; do
        if [[ $word == -- ]]; then
            break
        elif [[ $word == -* ]]; then
            [[ $options == *$'\n'"${word%%=*}"$'\n'* ]] || fault "$page: morvanectl ${command[*]} has no option $word"
        elif [[ $known == *$'\n'"$word"$'\n'* ]]; then
            command+=("$word")
            load_help "${command[@]}"
            known=${SUBCOMMANDS["morvanectl ${command[*]}"]} options+=${OPTIONS["morvanectl ${command[*]}"]}
        elif [[ ${#command[@]} -eq 0 && $word =~ ^[a-z] ]]; then
            fault "$page: morvanectl has no command $word"
        else
            known=''  # an argument; no command follows
        fi
    done
}

# commands_in: the words after "morvanectl" of each line, up to a comment, another command or the end of a quotation.
# shellcheck disable=SC2016
commands_in() { grep -oE '(^|[ /`"(])morvanectl [^`#|;&<>")]*' | sed -E 's/^.*morvanectl //; s/[],.:?…]+( |$)/ /g' || true; }

check_page() {
    local page=$1 block line words
    check_links "$page"
    while IFS= read -r block; do
        BLOCKS=$((BLOCKS + 1))
        bash -n "$block" 2>"$FOLDER/errors" || fault "$page: $(<"$FOLDER/errors")"
        sed 's/[[:space:]]#.*//' "$block" >>"$FOLDER/commands"
    done < <(blocks "$page")
    # shellcheck disable=SC2016
    prose "$page" | grep -oE '`[^`]*`' | tr -d '`' >>"$FOLDER/commands" || true
    while IFS= read -r line; do
        read -ra words <<<"${line//[\[\]]/}"
        check_command "$page" "${words[@]}"
    done < <(commands_in <"$FOLDER/commands")
    rm -f "$FOLDER/commands"
}

# status_words: the words in brackets that the sources can put behind a reason or a warning of the status, or behind a
# finding of the doctor.
status_words() {
    {
        find "$ROOT"/agent/src "$ROOT"/module_*/{src,feature_*} "$ROOT"/framework -name '*.cpp' -exec cat {} + 2>/dev/null |
            tr '\n' ' ' | grep -oE '(reasons\.Add|AddOwn|Reason|Warning)\( *"[a-z_]+"' | grep -oE '"[a-z_]+"'
        # The doctor's table ends each row with its word.
        grep -oE '"[a-z_]+"\},$' "$ROOT/agent/src/ctl/doctor/Findings.cpp"
    } | tr -d '"},' | sort -u
}

# shellcheck disable=SC2016
explained_words() { sed -nE 's/^### `(.*)`$/\1/p' "$ROOT/docs/troubleshooting.md"; }

check_words() {
    local word
    status_words >"$FOLDER/words"
    explained_words | sort >"$FOLDER/sections"
    while IFS= read -r word; do
        fault "[$word] of the status has no section of its own in docs/troubleshooting.md, or the section has no such word"
    done < <(comm -3 --output-delimiter='' "$FOLDER/words" "$FOLDER/sections")
    while IFS= read -r word; do
        [[ $("$STAGE/bin/morvanectl" explain "$word" | wc -l) -ge 3 ]] || fault "morvanectl explain $word says nothing"
    done <"$FOLDER/words"
    [[ $("$STAGE/bin/morvanectl" explain) == "$(explained_words)" ]] ||
        fault "morvanectl explain lists other words, or others than the stage folder"
    (($(wc -l <"$FOLDER/words") > 25)) || fault "found only $(wc -l <"$FOLDER/words") words in the sources"
}

main() {
    local page
    for page in "$ROOT"/README.md "$ROOT"/ARCHITECTURE.md "$ROOT"/docs/*.md; do
        check_page "$page"
        [[ $page != "$ROOT"/docs/* || $page == */README.md || $page == */performance-results.md ]] ||
            grep -qF "]($(basename -- "$page"))" "$ROOT/docs/README.md" || fault "docs/README.md does not list $page"
    done
    check_words
    ((LINKS > 60 && BLOCKS > 20 && COMMANDS > 60)) || fault "checked only $LINKS links, $BLOCKS blocks, $COMMANDS commands"
    echo "$LINKS links, $BLOCKS blocks and $COMMANDS commands checked"
    return $((FAULTS > 0))
}

main
