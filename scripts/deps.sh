#!/usr/bin/env bash
# Installs what a fresh Debian machine lacks to build and test the project,
# and generates the non-UTF-8 locale the code-set tests use.  Idempotent:
# does nothing when everything is already there.
set -euo pipefail

# 32-bit x86 builds use g++ -m32 with the 32-bit C and C++ libraries rather
# than g++-multilib, which Debian does not let share a machine with the s390x
# cross compiler.
packages=(cmake g++ make clang libclang-rt-dev libgtest-dev libgmock-dev libbenchmark-dev libre2-dev
          libsqlite3-dev liblmdb-dev
          pkg-config locales libc-bin g++-s390x-linux-gnu qemu-user
          libedit-dev tmux groff-base man-db lib32stdc++-12-dev lib32gcc-12-dev libc6-dev-i386)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}" >/dev/null
fi

# A Latin-1 locale for the code-set conversion tests.
if ! locale -a 2>/dev/null | grep -qi '^en_US\.iso88591$'; then
  "${sudo_cmd[@]}" localedef -i en_US -f ISO-8859-1 en_US.ISO-8859-1 || true
fi
