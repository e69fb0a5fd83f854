# Functions that ./run and ./check share: messages, root, packages and building. Source this in bash, at the tree's top.

say() { printf '\033[1m==>\033[0m %s\n' "$*" >&2; }
die() { printf '%s: %s\n' "${0##*/}" "$*" >&2; exit 1; }

# become_root REASON ARGUMENT...: restarts the script as root, with sudo, unless it runs as root already.
become_root() {
    local reason=$1
    shift
    [ "$(id -u)" -ne 0 ] || return 0
    echo "${0##*/}: needs root: $reason" >&2
    command -v sudo >/dev/null || die "sudo is missing; start it as root"
    echo "${0##*/}: restarting with sudo" >&2
    exec sudo -- "$0" "$@"
}

# need_packages ROLE...: installs the missing packages that the list names for these roles.
need_packages() {
    local role package missing=() wanted=" $* "
    while read -r role package _; do
        case "$role" in ''|'#'*) continue ;; esac
        case "$wanted" in *" $role "*) ;; *) continue ;; esac
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
    done < packages
    [ ${#missing[@]} -gt 0 ] || return 0
    say "Installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq || die "the package lists could not be fetched (apt-get update, above)"
    apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null >&2 \
        || die "a package could not be installed (apt-get, above)"
}

# build PRESET [TARGET...]: configures and builds, showing the build tool's progress.
build() {
    local preset=$1 targets=()
    shift
    [ $# -eq 0 ] || targets=(--target "$@")
    say "Building ($preset)"
    cmake --preset "$preset" >/dev/null || die "configuring $preset failed (cmake --preset $preset)"
    cmake --build --preset "$preset" "${targets[@]}" >&2 || die "building $preset failed"
}
