# shellcheck shell=bash disable=SC2034
# Shared by the scripts, which source it: paths, messages, Debian packages, building.

ROOT=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd -P)
readonly ROOT
readonly LOG_DIR=$ROOT/build/logs
JOBS=$(nproc 2>/dev/null || echo 2)
readonly JOBS

# To build and to run the product.
readonly BUILD_PACKAGES=(
    g++ cmake ninja-build pkg-config ccache
    libpoco-dev libjsoncpp-dev libboost-dev libsqlite3-dev libcli11-dev libssl-dev libsystemd-dev
    libargon2-dev libmosquitto-dev libpq-dev libbpf-dev clang bpftool
    rsync diffutils procps sudo ca-certificates util-linux
)
# To test it as well.
readonly TEST_PACKAGES=(
    libgtest-dev clang-format clang-tidy shellcheck attr acl iproute2 curl git openssl
    man-db bsdextrautils systemd mosquitto postgresql composer
)

# A browser for the tests of the console, and the Node.js that drives it.
readonly BROWSER_PACKAGES=(chromium)
readonly NODE_PACKAGES=(nodejs npm)

# To make Debian packages.
readonly PACKAGE_PACKAGES=(debhelper scdoc lintian)

say() { printf '%s\n' "$*"; }
step() { printf '%s==>%s %s\n' "$BOLD" "$PLAIN" "$*"; }
warn() { printf 'warning: %s\n' "$*" >&2; }
die() {
    printf 'error: %s\n' "$*" >&2
    exit 1
}

if [[ -t 1 && ${TERM:-dumb} != dumb ]]; then
    BOLD=$'\e[1m' PLAIN=$'\e[0m'
else
    BOLD='' PLAIN=''
fi
readonly BOLD PLAIN

# as_root COMMAND...: runs it as root, with sudo if needed.
as_root() {
    if [[ $EUID -eq 0 ]]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo -- "$@"
    else
        die "this needs root: run it as root, or install sudo. (The command: $*)"
    fi
}

# logged NAME COMMAND...: runs it with its output in build/logs/NAME.log; if it fails, prints the last lines.
logged() {
    local log=$LOG_DIR/$1.log
    shift
    mkdir -p "$LOG_DIR"
    if ! "$@" >"$log" 2>&1; then
        printf '%s\n' "---- the last lines of $log:" >&2
        tail -n 30 "$log" >&2
        return 1
    fi
}

# is_roots_alone DIRECTORY: true if only root can change what lies at that path: the directory and every
# directory above it belong to root, and others may write to none of them. A directory above may be writable
# with the sticky bit, such as /tmp: there others cannot replace what belongs to root.
is_roots_alone() {
    local directory owner mode above=''
    directory=$(realpath -e -- "$1") || return 1
    while :; do
        read -r owner mode < <(stat -c '%u 0%a' -- "$directory") || return 1
        [[ $owner -eq 0 ]] || return 1
        (((mode & 022) == 0)) || { [[ -n $above ]] && (((mode & 01000) != 0)); } || return 1
        [[ $directory != / ]] || return 0
        directory=$(dirname -- "$directory") above=yes
    done
}

missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed ||
            printf '%s\n' "$package"
    done
}

# install_dependencies PACKAGE...: installs missing Debian packages.
install_dependencies() {
    if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
        die "this script installs Debian packages, and this system has no apt-get." \
            "Sentrel is built on Debian 12; on other systems install the equivalents of: $*"
    fi
    local missing
    mapfile -t missing < <(missing_packages "$@")
    [[ ${#missing[@]} -gt 0 ]] || return 0
    step "Installing ${#missing[@]} Debian packages: ${missing[*]}"
    local apt=(env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=300)
    logged apt-update as_root "${apt[@]}" update ||
        warn "apt-get update failed; using the present package lists"
    logged apt-install as_root "${apt[@]}" install --no-install-recommends "${missing[@]}" ||
        die "apt-get could not install them; the whole output is in $LOG_DIR/apt-install.log"
}

# install_browser: installs Chromium, and in build/browser-test what drives it, of the versions that the lock file names.
install_browser() {
    local folder=$ROOT/build/browser-test source=$ROOT/tests/console/browser
    install_dependencies "${BROWSER_PACKAGES[@]}"
    command -v npm >/dev/null || install_dependencies "${NODE_PACKAGES[@]}"
    mkdir -p "$folder"
    cp "$source"/*.mjs "$source/.npmrc" "$source/package.json" "$folder/"
    if [[ ! -d $folder/node_modules ]] || ! cmp -s "$source/package-lock.json" "$folder/package-lock.json"; then
        cp "$source/package-lock.json" "$folder/"
        (cd "$folder" && logged npm npm ci --ignore-scripts) || die "npm could not install what drives the browser"
    fi
}

# sparse_progress: prints ninja's "[done/total]" lines once a tenth, and all other lines.
sparse_progress() {
    awk '
        match($0, /^\[[0-9]+\/[0-9]+\]/) {
            split(substr($0, 2, RLENGTH - 2), count, "/")
            tenth = int(10 * count[1] / count[2])
            if (tenth != shown || count[1] == count[2]) {
                printf "    built %d of %d\n", count[1], count[2]
                fflush()
            }
            shown = tenth
            next
        }
        !/^ninja: (Entering directory|no work to do)/ { print; fflush() }'
}

# build_preset PRESET [CMAKE_ARGUMENT...]: configures and builds. Progress is one changing line on a
# terminal, else a line at each tenth.
build_preset() {
    local preset=$1 directory=$ROOT/build/$1
    shift
    export CCACHE_BASEDIR=$ROOT CCACHE_NOHASHDIR=1
    (cd "$ROOT" && logged "configure-$preset" cmake --preset "$preset" "$@") ||
        die "cmake could not configure the preset $preset"
    if [[ -t 1 ]]; then
        NINJA_STATUS='    building [%f/%t] %es  ' ninja -C "$directory" -j "$JOBS" ||
            die "the build failed"
    else
        NINJA_STATUS='[%f/%t] ' ninja -C "$directory" -j "$JOBS" 2>&1 | sparse_progress ||
            die "the build failed"
    fi
}

# build_release: builds the release preset. Keeps the SENTREL_TESTS setting of a folder that is configured already.
build_release() {
    local options=()
    [[ -e $ROOT/build/release/CMakeCache.txt ]] || options=(-DSENTREL_TESTS=OFF)
    build_preset release "${options[@]}"
}
