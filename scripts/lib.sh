# Pieces that the scripts share; to be sourced after "set -euo pipefail".

# Installs those of the named packages that are missing, and asks the network only then.
need_packages() {
    local package missing=()
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null | grep -qx installed || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    local install=(env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}")
    "${install[@]}" || { apt-get update && "${install[@]}"; }
}

need_root() {
    [ "$EUID" -eq 0 ] || { echo "$0: needs root: sudo $0" >&2; exit 1; }
}

BUILD_PACKAGES=(g++ cmake ninja-build libgtest-dev)
RUN_PACKAGES=(util-linux mount iproute2 sysvinit-utils)  # namespaces, and the pidof that halvo calls

# In front of what ThreadSanitizer is in: it wants its shadow where some kernels' address randomisation puts other things.
PLAIN_ADDRESSES=(setarch -R)
"${PLAIN_ADDRESSES[@]}" true 2>/dev/null || PLAIN_ADDRESSES=()
