#!/usr/bin/env bash
# A guard as an administrator would write it: inotifywait tells, one rsync a change puts back.
# Usage: inotifywait-loop.sh LIVE GOOD FOLDER [EXCLUDED_SUFFIX]
# FOLDER gets `watches`, where inotifywait says when it is ready. When somebody creates the file
# FOLDER/drain, names are only written to FOLDER/told from then on: so the bench sees which changes
# were never told. As fast as bash allows: what looks unchanged by its time costs no process, and
# the comparison of contents, which a change with its time set back needs, is off the way of others.
live=$1 good=$2 folder=$3 excluded=${4-}

put_back() {
    rsync -az -H -X --links --delete-excluded --temp-dir=/tmp "$1" "$2"
}

restore() {
    local path=$1 copy=$good${1#"$live"}
    if [[ -d $copy ]]; then
        [[ -d $path ]] || put_back "$copy/" "$path/"
    elif [[ -e $copy ]]; then
        if [[ -e $path && ! $path -nt $copy && ! $path -ot $copy ]]; then
            cmp -s "$path" "$copy" && return
        fi
        put_back "$copy" "$path"
    else
        rm -rf "$path"
    fi
}

options=()
[[ -z $excluded ]] || options=(--exclude "\\$excluded\$")
inotifywait -m -r -e close_write,attrib,create,delete,move --format '%w%f' "${options[@]}" \
    "$live" 2>"$folder/watches" |
    while IFS= read -r path; do
        if [[ -e $folder/drain ]]; then
            printf '%s\n' "$path" >>"$folder/told"
        else
            restore "$path" 2>>"$folder/errors"
        fi
    done
