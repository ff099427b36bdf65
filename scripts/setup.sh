#!/usr/bin/env bash
# Installs the packages the build, the tests and the benchmarks need, if any
# is missing (Debian; needs root or sudo). Does nothing when all are present.
set -euo pipefail
packages=(cmake g++ make pkg-config libgtest-dev libgmock-dev libbenchmark-dev libfftw3-dev
          libsndfile1-dev libcli11-dev libcairo2-dev libfontconfig-dev)
missing=()
for p in "${packages[@]}"; do
  state=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [ "$state" = "install ok installed" ] || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
sudo_cmd=""
[ "$(id -u)" -ne 0 ] && sudo_cmd=sudo
export DEBIAN_FRONTEND=noninteractive
$sudo_cmd apt-get update -qq
$sudo_cmd apt-get install -y -qq --no-install-recommends "${missing[@]}"
