# Functions and lists that the scripts share. Source this file after "set -euo pipefail".

# Installs the named packages that are missing. Uses the network only if one is missing.
need_packages() {
    local package missing=()
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    local install=(env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}")
    "${install[@]}" || { apt-get update && "${install[@]}"; }
}

# The same for packages with a service of the same name, which then starts neither now nor at the next boot: the
# packages' scripts start nothing where they see no systemd.
need_packages_idle() {
    local package missing=()
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    mkdir -p /run/systemd
    # shellcheck disable=SC2016  # the inner shell expands it
    unshare --mount bash -euc 'mount -t tmpfs tmpfs /run/systemd; source scripts/lib.sh; need_packages "$@"' - \
        "${missing[@]}"
    for package in "${missing[@]}"; do
        rm -f "/etc/systemd/system/multi-user.target.wants/$package.service"
    done
}

need_root() {
    [ "$EUID" -eq 0 ] || { echo "$0: needs root: sudo $0" >&2; exit 1; }
}

BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libgtest-dev libsystemd-dev rapidjson-dev)
RUN_PACKAGES=(util-linux mount iproute2 sysvinit-utils)  # namespaces, and the pidof that halvo calls

# Prefix for commands built with ThreadSanitizer: with address randomisation, some kernels map other memory into the
# range that ThreadSanitizer needs for its shadow.
PLAIN_ADDRESSES=(setarch -R)
"${PLAIN_ADDRESSES[@]}" true 2>/dev/null || PLAIN_ADDRESSES=()
