#!/usr/bin/env bash
# Checks the sources with clang-format and clang-tidy, the direction of includes, and the shell scripts.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<'END'
Usage: scripts/lint.sh [--fix | --format-only | --quick | --recent] [FILE.cpp...]

Runs clang-tidy, clang-format, shellcheck and scripts/check-includes.sh over all files in git.

  --fix          format the sources and apply clang-tidy's corrections
  --format-only  run everything except clang-tidy
  --quick        run clang-tidy without its static analyzer, in half the time
  --recent       like --quick, for at most 60 sources that the last ten commits changed
  FILE.cpp...    run clang-tidy only for these files
END
}

# sources PATTERN...: files that exist and that git tracks or does not ignore.
sources() {
    local file
    while IFS= read -r -d '' file; do
        [[ ! -e $file ]] || printf '%s\0' "$file"
    done < <(git ls-files -z --cached --others --exclude-standard -- "$@")
}

# The product's sources that the last ten commits changed and that still exist; at most 60.
recent_sources() {
    local file
    while IFS= read -r file; do
        [[ ! -e $file ]] || printf '%s\0' "$file"
    done < <(git log -n 10 --name-only --pretty=format: -- '*.cpp' ':!tests' ':!bench' | sort -u | sed '/^$/d') |
        head -z -n 60
}

check_format() {
    step "clang-format"
    local mode=(--dry-run -Werror)
    [[ -z $FIX ]] || mode=(-i)
    sources '*.cpp' '*.h' | xargs -0 -r clang-format "${mode[@]}"
}

check_shell() {
    step "shellcheck"
    sources '*.sh' .ci/run 'packaging/debian/*.p*inst' 'packaging/debian/*.p*rm' packaging/completion/morvanectl |
        xargs -0 -r shellcheck -x
}

# One clang-tidy process a file, one process a core. Tests are excluded: GoogleTest's macros take much time
# and yield few findings.
check_tidy() {
    step "clang-tidy"
    (cmake --preset debug -DSENTREL_TESTS=OFF -B build/lint) >/dev/null ||
        die "cmake could not configure the sources for clang-tidy"
    logged lint-generated cmake --build build/lint --target bpf_process || die "a source cannot be generated"
    local options=()
    [[ -z $FIX ]] || options+=(--fix)
    [[ -z $QUICK ]] || options+=('--checks=-clang-analyzer-*')
    if [[ $# -gt 0 ]]; then
        printf '%s\0' "$@"
    elif [[ -n $RECENT ]]; then
        recent_sources
    else
        sources '*.cpp' ':!tests' ':!bench'
    fi | xargs -0 -r -n 1 -P "$([[ -n $FIX ]] && echo 1 || echo "$JOBS")" \
        clang-tidy -p build/lint --quiet "${options[@]}" 2> >(grep -v ' warnings\{0,1\} \(generated\|treated\)' >&2)
}

main() {
    local tidy=yes failed=0 files=()
    FIX='' QUICK='' RECENT=''
    while [[ $# -gt 0 ]]; do
        case $1 in
            --fix) FIX=yes ;;
            --format-only) tidy='' ;;
            --quick) QUICK=yes ;;
            --recent) QUICK=yes RECENT=yes ;;
            -h | --help) usage && return 0 ;;
            -*) usage >&2 && die "unknown option: $1" ;;
            *) files+=("$(realpath -e -- "$1")") ;;
        esac
        shift
    done
    cd "$ROOT"
    install_dependencies "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
    [[ -z $tidy ]] || check_tidy "${files[@]}" || failed=1
    check_format || failed=1
    check_shell || failed=1
    step "direction of includes"
    scripts/check-includes.sh || failed=1
    return "$failed"
}

main "$@"
