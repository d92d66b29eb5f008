#!/usr/bin/env bash
# options.sh PAGE.scd PROGRAM: prints the page with the line @OPTIONS@ replaced by the options, and @COMMANDS@ by
# the commands, of the program's own --help. So the page cannot name others than the program has.
set -euo pipefail

readonly PAGE=$1 PROGRAM=$2

# section TITLE: the entries of that section of a help, as "name<tab>text"; the name's type and checks are shortened.
section() {
    awk -v title="$1:" '
        $0 == title { inside = 1; next }
        inside && /^$/ { inside = 0 }
        # CLI11 begins the text in column 31, on the next line when the name is too long.
        inside && /^  [^ ]/ {
            print_entry()
            name = substr($0, 3)
            if (substr($0, 30, 1) == " ") { name = substr($0, 3, 27); text = substr($0, 31) }
            next
        }
        inside { sub(/^ +/, " "); text = text $0 }
        END { print_entry() }
        function print_entry() {
            sub(/^ +/, "", text)
            if (name != "") print shorten(name) "\t" text
            name = text = ""
        }
        function shorten(name) {
            sub(/ (Excludes|Needs): .*/, "", name)
            sub(/ REQUIRED/, "", name)
            if (sub(/[A-Z]+:\{/, "", name)) { sub(/\}/, "", name); gsub(/,/, "|", name) }
            sub(/:.*/, "", name)
            if (name !~ /^-/) sub(/ (TEXT|UINT|INT)/, "", name)
            sub(/ +$/, "", name)
            return name
        }'
}

# escaped: for scdoc, where _ * \ and # have a meaning.
escaped() { sed 's/[_*\\#<>]/\\&/g'; }

# entries TITLE: as a list of definitions.
entries() {
    section "$1" | grep -v -- '^-h,--help' | escaped | while IFS=$'\t' read -r name text; do
        printf '*%s*%s\n\t%s\n\n' "${name%% *}" "$([[ $name != *' '* ]] || printf ' %s' "${name#* }")" "$text"
    done || true
}

# commands WORD...: the command, and those below it.
commands() {
    local help usage sub
    help=$("$PROGRAM" "$@" --help)
    if ! grep -q '^Subcommands:$' <<<"$help"; then
        usage=$(sed -n 's/^Usage: [^ ]*//p' <<<"$help")
        printf '## %s%s\n\n' "$(basename -- "$PROGRAM" | escaped)" "$(escaped <<<"${usage/ \[OPTIONS\]/}")"
        head -n 1 <<<"$help" | sed 's/[^.]$/&./' | escaped
        printf '\n'
        entries Positionals <<<"$help"
        entries Options <<<"$help"
        # What stands below the options, such as the exit codes.
        sed -n '/^Options:$/,$p' <<<"$help" | sed '1,/^$/d' | tr '\n' ' ' | escaped
        printf '\n'
        return
    fi
    while read -r sub _; do
        commands "$@" "$sub"
    done < <(section Subcommands <<<"$help")
}

while IFS= read -r line; do
    case $line in
        @OPTIONS@) printf '*-h*, *--help*\n\tPrint a help text and end.\n\n' && "$PROGRAM" --help | entries Options ;;
        @COMMANDS@) commands ;;
        *) printf '%s\n' "$line" ;;
    esac
done <"$PAGE"
