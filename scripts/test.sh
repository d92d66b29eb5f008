#!/usr/bin/env bash
# Installs what is missing, builds, and runs the tests.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<'END'
Usage: scripts/test.sh [OPTION]...

Without an option: installs missing Debian packages, builds the release preset, and runs all its tests,
also the demos.

  --quick       run the release tests without the end-to-end tests
  --sanitizers  run all tests with AddressSanitizer + UndefinedBehaviorSanitizer, then with ThreadSanitizer
  --format      check the format of the sources, the direction of includes and the shell scripts
  --lint        the same, and clang-tidy
  --all         --lint, the release tests, and --sanitizers
  --ci          run what continuous integration runs: --lint with clang-tidy only for the sources that the
                last ten commits changed, the release tests, --sanitizers
  -h, --help    print this text

Options can be combined. Exit code 0: everything passed.
END
}

SUMMARIES=()

# run_suite PRESET [CTEST_ARGUMENT...]: builds the preset and runs its tests.
run_suite() {
    local preset=$1 started=$SECONDS log status=0
    shift
    step "Building the preset $preset"
    build_preset "$preset" -DSENTREL_TESTS=ON
    local built=$SECONDS
    step "Testing the preset $preset"
    mkdir -p "$LOG_DIR"
    log=$LOG_DIR/test-$preset.log
    (cd "$ROOT" && ctest --preset "$preset" --no-tests=error -j "$JOBS" "$@") 2>&1 | tee "$log" ||
        status=1
    SUMMARIES+=("$(printf '%-8s built in %d s, tested in %d s: %s' "$preset" \
        "$((built - started))" "$((SECONDS - built))" "$(summary_line "$log")")")
    return "$status"
}

# summary_line LOG: ctest's last line, "100% tests passed, 0 tests failed out of N".
summary_line() {
    grep -E '^[0-9]+% tests passed' "$1" | tail -n 1 || echo 'no tests were run'
}

lint() {
    if "$ROOT/scripts/lint.sh" "$@"; then
        SUMMARIES+=("lint     clean")
    else
        SUMMARIES+=("lint     has findings, see above")
        return 1
    fi
}

main() {
    local release='' sanitizers='' lint='' failed=0 ctest_arguments=()
    [[ $# -gt 0 ]] || release=yes
    while [[ $# -gt 0 ]]; do
        case $1 in
            --quick) release=yes ctest_arguments=(-LE e2e) ;;
            --sanitizers) sanitizers=yes ;;
            --format) lint=${lint:-format} ;;
            --lint) lint=all ;;
            --all) release=yes sanitizers=yes lint=all ;;
            --ci) release=yes sanitizers=yes lint=${lint:-recent} ;;
            -h | --help) usage && return 0 ;;
            *) usage >&2 && die "unknown option: $1" ;;
        esac
        shift
    done

    install_dependencies "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" "${PACKAGE_PACKAGES[@]}"
    install_browser
    [[ $lint != format ]] || lint --format-only || failed=1
    [[ $lint != recent ]] || lint --recent || failed=1
    [[ $lint != all ]] || lint || failed=1
    [[ -z $sanitizers ]] || run_suite asan || failed=1
    [[ -z $sanitizers ]] || run_suite tsan || failed=1
    [[ -z $release ]] || run_suite release "${ctest_arguments[@]}" || failed=1

    step "Summary"
    printf '%s\n' "${SUMMARIES[@]}"
    return "$failed"
}

main "$@"
