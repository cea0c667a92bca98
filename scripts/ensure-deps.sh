#!/usr/bin/env bash
# Checks for the build tools and libraries; installs the missing Debian
# packages when run as root, else names them and fails.
set -euo pipefail
need=()
command -v cmake >/dev/null 2>&1 || need+=(cmake)
command -v g++ >/dev/null 2>&1 || need+=(g++)
command -v ninja >/dev/null 2>&1 || need+=(ninja-build)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
if [ ${#need[@]} -gt 0 ]; then
  if [ "$(id -u)" = 0 ]; then
    echo "installing: ${need[*]}" >&2
    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need[@]}" >/dev/null
  else
    echo "missing Debian packages: ${need[*]} (run as root to install them, or: apt-get install ${need[*]})" >&2
    exit 1
  fi
fi
