#!/usr/bin/env bash
# Checks that includes go one way. scripts/include-order.txt lists the folders and states the rule.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"

readonly ORDER=scripts/include-order.txt
# Include directories of the build.
readonly INCLUDE_ROOTS=(
    sdk/include sdk/src database/include database/src baseline/include baseline/src evidence/include evidence/src
    fleet/include fleet/src console/include console/src framework/include framework/src module_utils/include
    module_report/src module_filenotify/include module_filenotify/src module_sentrel module_sentrel/src module_fleet/src
    sentry/include sentry/src agent/src collector/src
    demo/src rsync_preload/src
)

declare -A FLOOR USED KNOWN
FAULTS=0

fault() {
    printf '%s\n' "$*" >&2
    FAULTS=$((FAULTS + 1))
}

read_order() {
    local line folder floor=0
    while IFS= read -r line; do
        [[ -n $line && $line != '#'* ]] || continue
        floor=$((floor + 1))
        for folder in $line; do
            FLOOR[$folder]=$floor
        done
    done <"$ORDER"
}

# folder_of FILE: sets FOLDER to the innermost listed folder that contains it; fails if there is none.
folder_of() {
    FOLDER=${1%/*}
    while [[ -z ${FLOOR[$FOLDER]:-} ]]; do
        [[ $FOLDER == */* ]] || return 1
        FOLDER=${FOLDER%/*}
    done
}

# resolve FILE NAME: sets TARGET to the source that FILE includes as NAME; FILE's own component comes first.
resolve() {
    local root
    TARGET=''
    for root in "${INCLUDE_ROOTS[@]}"; do
        [[ -n ${KNOWN[$root/$2]:-} ]] || continue
        [[ -n $TARGET && ${root%%/*} != "${1%%/*}" ]] || TARGET=$root/$2
    done
}

check_file() {
    local file=$1 own line
    folder_of "$file" || { fault "$file: $ORDER does not list its folder" && return; }
    own=${FLOOR[$FOLDER]} USED[$FOLDER]=yes
    while IFS= read -r line; do
        line=${line#*[<\"]}
        resolve "$file" "${line%%[>\"]*}"
        [[ -n $TARGET ]] || continue
        CHECKED=$((CHECKED + 1))
        folder_of "$TARGET" || continue
        ((FLOOR[$FOLDER] <= own)) || fault "$file: includes $TARGET, which $ORDER lists below it"
    done < <(grep -E '^#include [<"]' "$file" || true)
}

main() {
    local file folder
    CHECKED=0
    cd "$ROOT"
    read_order
    while IFS= read -r -d '' file; do
        [[ ! -e $file ]] || KNOWN[$file]=yes
    done < <(git ls-files -z --cached --others --exclude-standard -- '*.h' '*.cpp' ':!tests' ':!bench')
    for file in "${!KNOWN[@]}"; do
        check_file "$file"
    done
    for folder in "${!FLOOR[@]}"; do
        [[ -n ${USED[$folder]:-} ]] || fault "$ORDER: no sources in $folder"
    done
    ((CHECKED > 0)) || fault "no include was checked"
    return $((FAULTS > 0))
}

main
