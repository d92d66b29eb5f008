#!/usr/bin/env bash
# Builds the Debian packages.
set -euo pipefail
# shellcheck source=scripts/lib.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/lib.sh"

usage() {
    cat <<'END'
Usage: scripts/package.sh [OPTION]...

Builds the Debian packages sentrel and, for the centre of a fleet, sentrel-collector, each with a -dbgsym beside it,
from the release build.
Installs missing Debian packages and builds the release preset first. Prints the paths of the packages.

  --output DIR       where the packages go; default: build/packages
  --stage DIR        pack this stage folder, and build nothing
  --version VERSION  version of the package; default: that of the product
  --no-debug         leave -dbgsym out, which takes most of the time
  --no-lint          do not check the packages with lintian
  -h, --help         print this text

Exit code 0: the packages are built, and lintian finds no error in them. docs/installing.md says how to install
them.
END
}

readonly MAINTAINER='Sentrel maintainers <maintainers@sentrel.example>'

# product_version: as in CMakeLists.txt.
product_version() {
    sed -n 's/^project(sentrel VERSION \([0-9.]*\) .*/\1/p' "$ROOT/CMakeLists.txt"
}

# check_stage DIR: a complete release build lies there.
check_stage() {
    local part
    for part in bin/morvane_agent bin/morvane_sentry bin/morvanectl bin/sentrel_collector module/libfleet_module.so lib/libsdk.so lib/libframework.so lib/librsync_preload.so \
        module/libsentrel_module.so module/libfilenotify_module.so module/libreport_module.so conf/agent.json; do
        [[ -e $1/$part ]] || die "there is no $1/$part. Build it first: scripts/package.sh without --stage."
    done
    ! grep -qE 'lib[at]san' < <(ldd "$1/bin/morvane_agent") ||
        die "$1 is a build with sanitizers; pack the release build."
}

# make_changelog VERSION: the newest entry only; the product's changes are in CHANGELOG.md.
make_changelog() {
    local date
    date=$(git -C "$ROOT" log -1 --format=%cD 2>/dev/null) || date=$(date -R -r "$ROOT/CHANGELOG.md")
    printf 'sentrel (%s) stable; urgency=medium\n\n  * See CHANGELOG.md in this directory.\n\n -- %s  %s\n' \
        "$1" "$MAINTAINER" "$date"
}

# make_tree DIR STAGE VERSION: what debian/rules works in.
make_tree() {
    rm -rf -- "$1"
    mkdir -p -- "$1"
    cp -a -- "$ROOT/packaging" "$ROOT/docs" "$ROOT/README.md" "$ROOT/CHANGELOG.md" "$1/"
    mv -- "$1/packaging/debian" "$1/debian"
    cp -a -- "$2" "$1/stage"
    cp -- "$ROOT/packaging/systemd/morvane-agent.service" "$1/debian/sentrel.morvane-agent.service"
    cp -- "$ROOT/packaging/systemd/morvane-sentry.service" "$1/debian/sentrel.morvane-sentry.service"
    cp -- "$ROOT/packaging/systemd/sentrel-collector.service" "$1/debian/sentrel-collector.service"
    make_changelog "$3" >"$1/debian/changelog"
    sed -i "s|@MAINTAINER@|$MAINTAINER|" "$1/debian/control"
    chmod -R u+w,go-w -- "$1"
}

build_packages() {
    local tree=$1 debug=$2
    local wanted="nocheck parallel=$JOBS"
    [[ -n $debug ]] || wanted+=' noautodbgsym'
    (cd "$tree" && logged package env DEB_BUILD_OPTIONS="$wanted" debian/rules binary) ||
        die "the packages could not be built; the whole output is in $LOG_DIR/package.log"
}

# check_packages PACKAGE...: lintian's errors are fatal, its other findings are printed.
check_packages() {
    step "lintian"
    lintian --allow-root --fail-on error --tag-display-limit 0 "$@" || die "lintian finds errors in the packages"
}

main() {
    local output=$ROOT/build/packages stage='' version='' debug=yes lint=yes tree packages
    while [[ $# -gt 0 ]]; do
        case $1 in
            --output | --stage | --version)
                [[ $# -ge 2 && -n $2 ]] || die "$1 needs a value"
                printf -v "${1#--}" '%s' "$2"
                shift
                ;;
            --no-debug) debug='' ;;
            --no-lint) lint='' ;;
            -h | --help) usage && return 0 ;;
            *) usage >&2 && die "unknown option: $1" ;;
        esac
        shift
    done
    version=${version:-$(product_version)}
    [[ $version =~ ^[0-9][A-Za-z0-9.+~]*(-[A-Za-z0-9.+~]+)?$ ]] || die "not a version of a Debian package: $version"
    if [[ -z $stage ]]; then
        install_dependencies "${BUILD_PACKAGES[@]}" "${PACKAGE_PACKAGES[@]}"
        step "Building the preset release"
        build_release
        stage=$ROOT/build/release/stage
    else
        install_dependencies "${PACKAGE_PACKAGES[@]}"
    fi
    check_stage "$stage"
    step "Building the packages, version $version"
    mkdir -p -- "$output" || die "cannot make $output"
    tree=$(realpath -- "$output")/tree
    make_tree "$tree/sentrel" "$stage" "$version"
    build_packages "$tree/sentrel" "$debug"
    mapfile -t packages < <(find "$tree" -maxdepth 1 -name '*.deb' -printf '%f\n' | sort)
    mv -- "${packages[@]/#/$tree/}" "$output/"
    rm -rf -- "$tree"
    [[ -z $lint ]] || check_packages "${packages[@]/#/$output/}"
    printf '%s\n' "${packages[@]/#/$output/}"
}

main "$@"
