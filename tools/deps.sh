#!/usr/bin/env bash
# Installs the Debian 12 packages that building, testing, benchmarking and
# fuzzing need, skipping what is already installed. Runs as root (or through
# sudo when available); never asks a question.
set -eu
pkgs=(
  build-essential gcc-multilib g++-multilib cmake ninja-build pkg-config
  googletest libbenchmark-dev
  clang libclang-rt-14-dev
  libglib2.0-dev libabsl-dev libboost-dev libmsgpack-dev uuid-dev
)
missing=()
for p in "${pkgs[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "deps: all ${#pkgs[@]} packages present"
  exit 0
fi
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo -n"
echo "deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# A mirror that is syncing makes apt-get update fail for a moment: retry.
for attempt in 1 2 3 4 5 6; do
  if $sudo apt-get update -qq </dev/null; then break; fi
  [ "$attempt" -eq 6 ] && { echo "deps: apt-get update kept failing" >&2; exit 1; }
  sleep $((attempt * 10))
done
for attempt in 1 2 3; do
  if $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" </dev/null; then exit 0; fi
  sleep 15
done
echo "deps: apt-get install failed" >&2
exit 1
