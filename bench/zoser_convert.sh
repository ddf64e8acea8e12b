#!/usr/bin/env bash
# Conversion throughput of the zoser tool on generated archives of about 1 GB, file to file:
# binary -> text, text -> binary, and binary -> xml, xml -> binary when the build has XML.
# Two workloads from "zoser sample": "records", millions of small catalogue records (many small
# elements), and "payload", one large binary and one large string streamed in pieces.
#
# Usage: bench/zoser_convert.sh [ZOSER] [RUNS] [FORMAT...]
#   ZOSER   the executable (default build/release/bin/zoser; build the release preset first)
#   RUNS    runs of each conversion (default 3); the script prints the range of the runs
#   FORMAT  the formats converted to and from binary (default: text, and xml when available)
# Throughput is the size of the input file over the wall time and over the CPU time (user +
# system), in MB/s (10^6 bytes); /usr/bin/time (Debian time) measures them. The files
# go to a temporary directory under $TMPDIR (about 3.5 GB at a time) that is removed at the end.
set -euo pipefail
zoser=$(realpath "${1:-build/release/bin/zoser}")
runs=${2:-3}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

formats=(text)
if [[ "$("$zoser" --help | sed -n '/^  xml /p')" != *"not available"* ]]; then
  formats+=(xml)
fi
if [ $# -gt 2 ]; then formats=("${@:3}"); fi
ext_of() { case "$1" in binary) echo zob ;; text) echo zot ;; xml) echo xml ;; esac; }

# Prints "FROM -> TO  WALL MB/s  CPU MB/s" over the runs, as MIN-MAX ranges: wall is the input
# size over the elapsed time, CPU over user + system time (steadier on a shared machine).
measure() {
  local in=$1 out=$2 from=$3 to=$4 size times=""
  size=$(stat -c %s "$in")
  for ((r = 0; r < runs; ++r)); do
    rm -f "$out"
    times+="$(/usr/bin/time -f '%e %U %S' "$zoser" convert -q "$in" "$out" 2>&1) "
  done
  echo "$times" | awk -v size="$size" -v from="$from" -v to="$to" '{
    for (i = 1; i < NF; i += 3) {
      wall = size / $i / 1e6
      cpu = size / ($(i + 1) + $(i + 2)) / 1e6
      if (i == 1 || wall < wlo) wlo = wall
      if (i == 1 || wall > whi) whi = wall
      if (i == 1 || cpu < clo) clo = cpu
      if (i == 1 || cpu > chi) chi = cpu
    }
    printf "  %-6s -> %-6s wall %5.0f-%-5.0f MB/s   CPU %5.0f-%-5.0f MB/s   (input %4.0f MB)\n",
           from, to, wlo, whi, clo, chi, size / 1e6
  }'
}

echo "zoser $("$zoser" --version | cut -d' ' -f2), $runs runs each, load: $(cut -d' ' -f1-3 /proc/loadavg)"
for workload in records payload; do
  if [ "$workload" = records ]; then
    "$zoser" sample --records 6600000 --payload-size 0 "$work/in.zob"
  else
    "$zoser" sample --payload-size 536870912 "$work/in.zob"
  fi
  echo "$workload:"
  for f in "${formats[@]}"; do
    e=$(ext_of "$f")
    measure "$work/in.zob" "$work/out.$e" binary "$f"
    measure "$work/out.$e" "$work/back.zob" "$f" binary
    "$zoser" compare -q "$work/in.zob" "$work/back.zob" || { echo "round trip differs" >&2; exit 1; }
    rm -f "$work/out.$e" "$work/back.zob"
  done
  rm -f "$work/in.zob"
done
