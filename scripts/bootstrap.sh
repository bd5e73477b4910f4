#!/usr/bin/env bash
# Installs the build tools and test libraries when they are missing (Debian).
#   scripts/bootstrap.sh [preset...]   what the given presets need besides the
#                                      default build's tools (bench, fuzz)
# Everything missing is installed in one go, so that a CI run that names all
# its presets at once reads the package lists once.
set -euo pipefail
presets=" $* "
need=()
command -v cmake >/dev/null || need+=(cmake)
command -v ninja >/dev/null || need+=(ninja-build)
command -v g++ >/dev/null || need+=(g++)
command -v python3 >/dev/null || need+=(python3)
command -v ip >/dev/null || need+=(iproute2)
[ -f /usr/include/gtest/gtest.h ] || need+=(libgtest-dev)
[ -f /usr/include/gmock/gmock.h ] || need+=(libgmock-dev)
[ -f /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
# The table benchmark's peers, so that their code is compiled too.
if [[ $presets == *" bench "* ]]; then
  [ -f /usr/include/boost/interprocess/managed_shared_memory.hpp ] || need+=(libboost-dev)
  [ -f /usr/include/lmdb.h ] || need+=(liblmdb-dev)
fi
# The fuzz harnesses: clang with its libFuzzer and sanitizer runtimes.
if [[ $presets == *" fuzz "* ]]; then
  command -v clang++ >/dev/null || need+=(clang)
  if ! command -v clang++ >/dev/null || [ ! -f "$(clang++ -print-file-name=libclang_rt.fuzzer-x86_64.a)" ]; then
    need+=(libclang-rt-dev)
  fi
fi
# mroutectl's argument parsing and JSON (header-only; the library uses neither).
[ -f /usr/include/CLI/CLI.hpp ] || need+=(libcli11-dev)
[ -f /usr/include/nlohmann/json.hpp ] || need+=(nlohmann-json3-dev)
if [ ${#need[@]} -gt 0 ]; then
  echo "bootstrap: installing ${need[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${need[@]}"
fi
