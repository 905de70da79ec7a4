#!/usr/bin/env bash
# scripts/deps against a fake package manager: one "Installing: ..." line when it works,
# the manager's whole output and a failing status when it does not. The fakes never touch
# the system: sudo swallows the writes to /usr/sbin.
set -u
root="$(cd "$(dirname "$0")/../.." && pwd)"
fake=$(mktemp -d)
trap 'rm -rf "$fake"' EXIT
printf '#!/bin/sh\nexit 1\n' >"$fake/dpkg-query" # nothing is installed
printf '#!/bin/sh\necho 1000\n' >"$fake/id"      # not root, so sudo is used
printf '#!/bin/sh\ncase "$*" in *policy-rc.d*) cat >/dev/null; exit 0;; esac\nexec "$@"\n' >"$fake/sudo"
printf '#!/bin/sh\necho "apt noise: $*"\nexit "${FAKE_APT_STATUS:-0}"\n' >"$fake/apt-get"
chmod +x "$fake"/*

fail() { echo "FAIL: $*"; exit 1; }
out=$(PATH="$fake:$PATH" "$root/scripts/deps" 2>&1) || fail "deps failed: $out"
[[ "$out" == "Installing: cmake ninja-build g++ libgtest-dev pci.ids" ]] || fail "not quiet: $out"
out=$(FAKE_APT_STATUS=100 PATH="$fake:$PATH" "$root/scripts/deps" 2>&1) && fail "a failed install passed"
[[ "$out" == *"apt noise: update -q"* ]] || fail "the failure's output is missing: $out"
echo "deps is quiet"
