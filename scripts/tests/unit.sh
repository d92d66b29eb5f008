# shellcheck shell=bash
# Sourced by tests that run the agent as its systemd unit does.

# unit_confinement UNIT: the words that run a command under the capabilities of the unit, and without new
# privileges, one on a line. They are read from the unit, so both stay the same.
unit_confinement() {
    local names IFS=' '
    grep -qx 'NoNewPrivileges=yes' "$1" || { echo "$1 gives new privileges" >&2 && return 1; }
    names=$(sed -n 's/^CapabilityBoundingSet=//p' "$1" | tr '[:upper:]\n' '[:lower:] ')
    names=${names% } names=${names//cap_/}
    [[ -n $names && $names != *'~'* ]] || { echo "no set of capabilities in $1" >&2 && return 1; }
    printf '%s\n' /usr/bin/setpriv --bounding-set "-all,+${names// /,+}" --inh-caps -all --no-new-privs
}
