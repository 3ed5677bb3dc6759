# Shared by the project's scripts: installs missing Debian packages and
# configures/builds a tree. Sourced, not run.
set -euo pipefail

KOLT_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
KOLT_JOBS="${KOLT_JOBS:-$(nproc 2>/dev/null || echo 2)}"

# Installs the Debian packages given as arguments that are not yet installed
# (non-interactive, only when something is missing).
kolt_ensure_packages() {
    local missing=() pkg
    for pkg in "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local sudo=""
    if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
    echo "== installing: ${missing[*]}"
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

KOLT_BUILD_PACKAGES=(g++ cmake make pkg-config binutils libcjson-dev libgtest-dev libgmock-dev libssl-dev libxml2-dev libcli11-dev)

# kolt_build <build dir> [cmake options...]
kolt_build() {
    local dir="$1"; shift
    cmake -S "$KOLT_ROOT" -B "$dir" "$@" >/dev/null
    cmake --build "$dir" -j "$KOLT_JOBS"
}
