#!/usr/bin/env bash
# corvex-pe live beside the Linux bridge, in one run: in a network
# namespace of its own, two veth pairs (a0-a1 for an extended port, up0-up1
# for the upstream port); corvex-gen offers frames on one pair's outer end
# and the other pair's outer end counts what arrives. Alternating in every
# round, on the same pairs:
#   corvex-pe      --port up=up0 --port a=a0 (port a is E-CID 0x001)
#   kernel bridge  a0 and up0 as the ports of a Linux bridge
# each for upstream-bound frames (into a1: corvex-pe inserts the E-tag)
# and extended-port-bound ones (E-tagged into up1: corvex-pe removes it),
# 64-byte frames and the imix size mix. The generator runs on CPU 0,
# corvex-pe on CPU 1 (the bridge forwards on the sender's CPU).
# The upstream link carries the E-tag: its MTU is 8 bytes more (1508).
# Prints offered, forwarded and lost frames per second (the round with the
# median frames forwarded), with the frames corvex-pe counted as not taken (its Rx lost, Tx
# lost and dropped), then the line "corvex-pe / kernel bridge: R", the median of the
# rounds' ratios for upstream-bound 64-byte frames.
# Builds what it needs (build/live-bench, a release build) and installs
# what a fresh Debian machine lacks; needs root for the namespace.
# Usage: bash tools/pe_live_bench.sh [ROUNDS [SECONDS]]   (default: 5 rounds of 2 s)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
if [ "${1:-}" = --inside ]; then
  shift
  bin=$1 rounds=$2 seconds=$3
else
  rounds=${1:-5} seconds=${2:-2}
  [[ $rounds =~ ^[1-9][0-9]*$ && $seconds =~ ^[1-9][0-9]*$ ]] \
    || { echo "usage: bash tools/pe_live_bench.sh [ROUNDS [SECONDS]]" >&2; exit 2; }
  [ "$(id -u)" = 0 ] || { echo "pe_live_bench.sh: needs root (a network namespace, packet sockets)" >&2; exit 2; }
  # shellcheck source=tools/packages.sh
  source "$root/tools/packages.sh"
  install_missing_packages "${corvex_packages_build[@]}" iproute2 util-linux
  build=$root/build/live-bench
  mkdir -p "$build"
  { cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCORVEX_TESTS=OFF &&
    cmake --build "$build" -j 2 --target corvex-pe corvex-gen; } >"$build.log" 2>&1 || { cat "$build.log"; exit 1; }
  ns=corvex-bench-$$
  ip netns add "$ns"
  trap 'ip netns delete "$ns"' EXIT
  ip netns exec "$ns" bash "$0" --inside "$build/bin" "$rounds" "$seconds"
  exit
fi

# ---- inside the namespace ---------------------------------------------------
work=$(mktemp -d)
pe_pid=
# shellcheck disable=SC2317
finish() { [ -z "$pe_pid" ] || kill "$pe_pid" 2>/dev/null || true; rm -rf "$work"; }
trap finish EXIT
sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
for port in a up; do
  ip link add ${port}0 type veth peer name ${port}1
  ip link set ${port}0 up
  ip link set ${port}1 up
done
ip link set up0 mtu 1508
ip link set up1 mtu 1508
ip link add br0 type bridge forward_delay 0 stp_state 0
ip link set br0 up
printf 'upstream up\nport a 0x001\n' >"$work/pe.conf"
cpus=$(nproc)
pin_gen=() pin_pe=()
if [ "$cpus" -ge 2 ]; then pin_gen=(taskset -c 0) pin_pe=(taskset -c 1); fi

received() { cat "/sys/class/net/$1/statistics/rx_packets"; }

# measure FORWARDER DIRECTION SIZE: appends "offered forwarded counted" (frames/s; counted: what
# corvex-pe's table says it did not take, "-" for the bridge) to $work/FORWARDER-DIRECTION-SIZE.
measure() {
  local forwarder=$1 direction=$2 size=$3 from=a1 to=up1 gen_args=()
  if [ "$direction" = down ]; then from=up1 to=a1 gen_args=(--etag 0x001); fi
  if [ "$forwarder" = pe ]; then
    "${pin_pe[@]}" "$bin/corvex-pe" --config "$work/pe.conf" --port up=up0 --port a=a0 -q 2>"$work/pe.err" >"$work/pe.out" &
    pe_pid=$!
    for _ in $(seq 100); do grep -q "forwarding between" "$work/pe.err" && break; sleep 0.05; done
    grep -q "forwarding between" "$work/pe.err" || { cat "$work/pe.err" >&2; exit 1; }
  else
    ip link set a0 master br0
    ip link set up0 master br0
    sleep 0.1
  fi
  local before after sent counted=-
  before=$(received $to)
  sent=$("${pin_gen[@]}" "$bin/corvex-gen" -i $from --size "$size" --duration "$seconds" "${gen_args[@]}")
  sleep 0.1  # the last frames in the rings
  after=$(received $to)
  if [ "$forwarder" = pe ]; then
    kill -TERM "$pe_pid"
    wait "$pe_pid" || { cat "$work/pe.err" >&2; exit 1; }
    pe_pid=
    # Its table's rows: Port E-CID Rx-frames Rx-bytes Tx-frames Tx-bytes Rx-lost Tx-lost LLDP LLDP-PE Dropped Pruned
    counted=$(awk '$1 == "up" || $1 == "a" { n += $7 + $8 + $11 } END { print n + 0 }' "$work/pe.out")
  else
    ip link set a0 nomaster
    ip link set up0 nomaster
  fi
  # "IFACE: sent N frames, B bytes in S s, R frames/s"
  awk -v forwarded=$((after - before)) -v counted="$counted" \
    '{ s = $8; printf "%.0f %.0f %s\n", $3 / s, forwarded / s, counted == "-" ? "-" : sprintf("%.0f", counted / s) }' \
    <<<"$sent" \
    >>"$work/$forwarder-$direction-$size"
}

# The round of a case with the median frames forwarded (the lower of two),
# its columns together: lost and counted are of one run.
median_round() { sort -k2,2n "$1" | awk '{ r[NR] = $0 } END { print r[int((NR + 1) / 2)] }'; }
median() { sort -n | awk '{ v[NR] = $1 } END { print NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

cases=("up 64" "down 64" "up imix" "down imix")
for round in $(seq "$rounds"); do
  # Who goes first alternates, so neither always finds the machine as the other left it.
  order=(pe bridge)
  [ $((round % 2)) = 0 ] && order=(bridge pe)
  for c in "${cases[@]}"; do
    for forwarder in "${order[@]}"; do
      # shellcheck disable=SC2086
      measure "$forwarder" $c
    done
  done
done

echo "corvex-pe live beside the Linux bridge: $rounds rounds of $seconds s, the median round of each, frames per second"
printf '%-22s %-6s %-14s %12s %12s %10s %10s\n' direction frames forwarder offered forwarded lost counted
for c in "${cases[@]}"; do
  read -r direction size <<<"$c"
  label="upstream-bound"
  [ "$direction" = down ] && label="extended-port-bound"
  for forwarder in pe bridge; do
    file="$work/$forwarder-$direction-$size"
    name="corvex-pe"
    [ $forwarder = bridge ] && name="kernel bridge"
    read -r offered forwarded counted < <(median_round "$file")
    printf '%-22s %-6s %-14s %12s %12s %10s %10s\n' "$label" "$size" "$name" \
      "$offered" "$forwarded" $((offered - forwarded)) "$counted"
  done
done
ratio=$(paste -d' ' "$work/pe-up-64" "$work/bridge-up-64" | awk '{ printf "%.4f\n", ($5 > 0 ? $2 / $5 : 0) }' | median)
printf 'corvex-pe / kernel bridge: %.2f\n' "$ratio"
