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

# The machine a report was made on: CPU, cores, memory, kernel, compiler.
kolt_machine() {
    local cpu
    cpu="$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)"
    [ -n "$cpu" ] || cpu="$(uname -m)"
    echo "$cpu ($(uname -m)), $(nproc) cores, $(awk '/^MemTotal/ { printf "%.1f GiB", $2 / 1048576 }' /proc/meminfo);" \
        "$(uname -sr); $(g++ --version | head -1)"
}

# "`<commit>`" of the tree a report was made from, marked when it has local
# changes (the reports themselves and the fuzz run log, which grows beside
# them, aside).
kolt_commit_text() {
    echo "\`$(git -C "$KOLT_ROOT" rev-parse --short HEAD 2>/dev/null || echo unknown)\`$(
        git -C "$KOLT_ROOT" diff --quiet HEAD -- . ':!fuzz/runs.tsv' ':!docs/robustness.md' ':!docs/performance.md' \
            2>/dev/null || echo ' (with local changes)')"
}
