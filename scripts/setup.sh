#!/usr/bin/env bash
# Installs the Debian packages the project builds with; does nothing when all are present.
set -euo pipefail

packages=(
    g++ cmake make pkg-config clang-format clang-tidy
    help2man doxygen file dpkg-dev bash-completion zsh man-db groff-base
    libsqlite3-dev sqlite3 tzdata
    libboost-dev
    libgtest-dev libgmock-dev
    libbenchmark-dev
    libcli11-dev nlohmann-json3-dev
    libutf8proc-dev libpcre2-dev
    libarchive-dev libssl-dev
    libjs-chart.js chromium
    python3 gcovr
    clang libclang-rt-dev llvm
    clickhouse-server clickhouse-client
)

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

echo "setup: installing ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
# The fleet test runs clickhouse-server as its own child on a free port; the package's system
# service is not wanted on a build machine.
if command -v systemctl >/dev/null && systemctl is-enabled clickhouse-server >/dev/null 2>&1; then
    $sudo systemctl disable --now clickhouse-server || true
fi
