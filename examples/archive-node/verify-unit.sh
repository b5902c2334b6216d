#!/bin/sh
# verify-unit.sh UNIT NODE SCRATCH: checks the unit file with systemd-analyze,
# its ExecStart pointed at NODE. systemd-analyze only warns (and exits 0)
# about lines it cannot parse, so any output counts as a failure.
set -e
mkdir -p "$3"
sed "s#^ExecStart=.*#ExecStart=$2#" "$1" > "$3/archive-node.service"
grep -q '^Type=notify$' "$3/archive-node.service"
out=$(systemd-analyze verify "$3/archive-node.service" 2>&1) || { echo "$out"; exit 1; }
if [ -n "$out" ]; then
  echo "$out"
  exit 1
fi
