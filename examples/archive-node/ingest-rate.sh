#!/bin/bash
# ingest-rate.sh BIN_DIR WORK_DIR: the node's ingest rate for studies of
# 1 MiB and of 64 KiB (4 client connections), beside copying the same files
# with cp and compressing them with gzip -1 (the node's zlib level), each
# followed by one sync. Prints MiB/s of study bytes for both.
set -euo pipefail
bin=$1 work=$2
rm -rf "$work"
mkdir -p "$work"
run_node() {  # size count -> MiB/s from the client
  local size=$1 count=$2 root="$work/root-$1"
  cat > "$work/kelvane.ini" <<INI
[Software\\Kelvane\\ArchiveNode]
StorageRoot = $root
Port = 0
PortFile = $work/port
INI
  rm -f "$work/port"
  KELVANE_CONFIG="$work/kelvane.ini" "$bin/archive_node" > "$work/node.log" 2>&1 &
  local node=$!
  for _ in $(seq 200); do [ -s "$work/port" ] && break; sleep 0.05; done
  "$bin/archive_client" send --port "$(cat "$work/port")" --threads 4 --count "$count" \
    --size "$size" | sed -n 's/.*(\(.*\) MiB\/s)/\1/p'
  kill -TERM "$node"
  wait "$node"
  rm -rf "$root"
}
run_files() {  # size count -> MiB/s of cp + gzip -1 + sync
  local size=$1 count=$2
  mkdir -p "$work/src" && rm -rf "$work/dst" "$work/src"/*
  "$bin/archive_client" generate --dir "$work/src" --count "$count" --size "$size"
  sync
  local start end
  start=$(date +%s.%N)
  cp -r "$work/src" "$work/dst" && gzip -1 "$work/dst"/*.raw && sync
  end=$(date +%s.%N)
  python3 -c "print('%.1f' % ($count * $size / 1048576 / ($end - $start)))"
  rm -rf "$work/dst"
}
for run in "1048576 200" "65536 2000"; do
  set -- $run
  for round in 1 2 3; do
    echo "size=$1 count=$2 round=$round node=$(run_node "$1" "$2") MiB/s cp+gzip=$(run_files "$1" "$2") MiB/s"
  done
done
rm -rf "$work"
