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

# What a cross build for Linux on 64-bit Arm needs besides the packages
# above: the cross toolchain and the arm64 multiarch libraries
# (cmake/toolchain-aarch64.cmake).
KOLT_AARCH64_PACKAGES=(g++-aarch64-linux-gnu binutils-aarch64-linux-gnu libc6-dev-arm64-cross
    libc6:arm64 libstdc++6:arm64 libgcc-s1:arm64
    libcjson-dev:arm64 libssl-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64 libxml2-dev:arm64)

# What making and checking the Debian packages needs (scripts/package.sh,
# the test debian_packages): dpkg-shlibdeps and dpkg-architecture, file.
KOLT_PACKAGING_PACKAGES=(dpkg-dev file)

# Adds the arm64 architecture to dpkg when it is missing, then installs the
# packages given (arm64 ones among them) that are not yet installed.
kolt_ensure_arm64_packages() {
    if ! dpkg --print-foreign-architectures | grep -qx arm64; then
        local sudo=""
        if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
        echo "== adding the arm64 architecture"
        $sudo dpkg --add-architecture arm64
        $sudo env DEBIAN_FRONTEND=noninteractive apt-get update -qq
    fi
    kolt_ensure_packages "$@"
}

# kolt_build <build dir> [cmake options...]
kolt_build() {
    local dir="$1"; shift
    cmake -S "$KOLT_ROOT" -B "$dir" "$@" >/dev/null
    cmake --build "$dir" -j "$KOLT_JOBS"
}
