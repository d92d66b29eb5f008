#!/usr/bin/env bash
# What a watchman trigger runs: names relative to the live tree on standard input, one rsync for all.
# Usage: watchman-restore.sh LIVE GOOD
live=$1 good=$2
changed=()
while IFS= read -r name; do
    if [[ ! -e $good/$name ]]; then
        rm -rf "${live:?}/$name"
    elif [[ ! -e $live/$name || $live/$name -nt $good/$name || $live/$name -ot $good/$name ]]; then
        [[ -d $live/$name && -d $good/$name ]] || changed+=("$name")
    fi
done
[[ ${#changed[@]} -gt 0 ]] || exit 0
printf '%s\n' "${changed[@]}" |
    rsync -az -H -X --links --delete-excluded --temp-dir=/tmp -r --files-from=- "$good/" "$live/"
