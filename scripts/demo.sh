#!/usr/bin/env bash
# The firewall module at work, between two network namespaces joined by a
# veth pair: firewall-host enforces examples/demo.ini in one ("host"), the
# other ("peer") tries connections the settings allow and block. The
# administration agent's port stays reachable until openOstraPorts is turned
# off; a rule is added and removed through `firewall-host ctl`; a rule is
# deleted by hand and repaired; the peer's attempts on logging rules give
# network-activity lines; a client isolates the host with one exclusion,
# which outlives a SIGKILL of the host and comes back with its restart,
# then releases it; and the host stops, leaving the tables as they were. Uses the machine's default iptables backend; touches nothing
# outside the two namespaces it creates and its scratch directory.
#
#   scripts/demo.sh BUILD_DIR
set -euo pipefail

usage() { echo "usage: $0 BUILD_DIR" >&2; exit 2; }

if [[ ${FWDEMO_INNER:-} != 1 ]]; then
  (( $# == 1 )) || usage
  if [[ $(id -u) -ne 0 ]]; then
    echo "demo: needs root (network namespaces, iptables); run it as root" >&2
    exit 1
  fi
  missing=()
  for tool in ip unshare mount socat nc ping timeout iptables ip6tables jq; do
    command -v "$tool" >/dev/null 2>&1 || missing+=("$tool")
  done
  if (( ${#missing[@]} )); then
    echo "demo: missing tools: ${missing[*]} (run scripts/install-deps.sh)" >&2
    exit 1
  fi
  # A mount namespace of its own, so that the namespace names live on a
  # private tmpfs and vanish with the demo however it ends.
  FWDEMO_INNER=1 exec unshare --mount --propagation private -- bash "$(realpath -e "$0")" "$@"
fi

here=$(cd "$(dirname "$0")/.." && pwd)
HOST_BIN=$(realpath -e "$1/firewall-host") || { echo "demo: no firewall-host in $1 (build first)" >&2; exit 1; }
# The "settings say" column of the probe table is written for this file.
EXAMPLE=$here/examples/demo.ini

readonly NS_HOST=fwdemo-$$-host NS_PEER=fwdemo-$$-peer
readonly H4=10.77.0.1 P4=10.77.0.2 H6=fd77::1 P6=fd77::2
# shellcheck source=scripts/netns-pair.sh
source "$here/scripts/netns-pair.sh"
WORK=$(mktemp -d /tmp/fwdemo.XXXXXX)
HOST_PID=
# The host runs on a copy, which the demo edits to turn the agent's ports off.
SETTINGS=$WORK/demo.ini
cp "$EXAMPLE" "$SETTINGS"
CONTROL=$WORK/control/control.sock

cleanup() {
  local rc=$?
  trap - EXIT INT TERM
  disown -a 2>/dev/null || true
  [[ -n $HOST_PID ]] && { kill -TERM "$HOST_PID" 2>/dev/null || true; sleep 0.5; kill -KILL "$HOST_PID" 2>/dev/null || true; }
  local ns pid
  for ns in "$NS_HOST" "$NS_PEER"; do
    # Everything in these namespaces was started by this script.
    for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -KILL "$pid" 2>/dev/null || true; done
    ip netns del "$ns" 2>/dev/null || true
  done
  rm -rf "$WORK"
  exit "$rc"
}
trap cleanup EXIT
trap 'echo; echo "demo: interrupted"; exit 130' INT
trap 'exit 143' TERM

bold=$'\e[1m' green=$'\e[32m' red=$'\e[31m' reset=$'\e[0m'
if [[ ! -t 1 ]]; then bold='' green='' red='' reset=''; fi

heading() { printf '\n%s== %s ==%s\n' "$bold" "$*" "$reset"; }
indent() { sed 's/^/    /'; }
in_host() { ip netns exec "$NS_HOST" "$@"; }
show_tables() {
  echo "  IPv4 (iptables -S):"
  in_host iptables -S | indent
  echo "  IPv6 (ip6tables -S):"
  in_host ip6tables -S | indent
}
in_peer() { ip netns exec "$NS_PEER" "$@"; }

# --- namespaces, addresses, listeners ------------------------------------------

private_netns_dir
setup_namespace_pair

listen() { # NS PORT WORD
  ip netns exec "$1" socat "TCP6-LISTEN:$2,ipv6only=0,reuseaddr,fork" "SYSTEM:echo $3" >/dev/null 2>&1 &
}
listen "$NS_HOST" 22 ssh
listen "$NS_HOST" 80 web
listen "$NS_HOST" 8080 app
listen "$NS_HOST" 15000 agent
listen "$NS_PEER" 80 web
listen "$NS_PEER" 23 telnet

# --- probes ----------------------------------------------------------------------

tcp() { # NS ADDRESS PORT WORD
  local out
  out=$(ip netns exec "$1" timeout 5 nc -w 1 "$2" "$3" </dev/null 2>/dev/null) || true
  [[ $out == *"$4"* ]] && echo connects || echo blocked
}
icmp() { # NS ADDRESS
  local family=-4
  [[ $2 == *:* ]] && family=-6
  ip netns exec "$1" ping "$family" -n -q -c 1 -W 1 "$2" >/dev/null 2>&1 && echo answers || echo "no answer"
}

# Each probe: label, expected outcome under the settings, command.
PROBES=(
  "peer -> host  TCP 22   (ssh)      IPv4|connects|tcp $NS_PEER $H4 22 ssh"
  "peer -> host  TCP 22   (ssh)      IPv6|connects|tcp $NS_PEER $H6 22 ssh"
  "peer -> host  TCP 80   (web)      IPv4|blocked|tcp $NS_PEER $H4 80 web"
  "peer -> host  TCP 80   (web)      IPv6|blocked|tcp $NS_PEER $H6 80 web"
  "peer -> host  TCP 8080 (app)      IPv4|blocked|tcp $NS_PEER $H4 8080 app"
  "peer -> host  TCP 15000 (agent)   IPv4|connects|tcp $NS_PEER $H4 15000 agent"
  "peer -> host  TCP 15000 (agent)   IPv6|connects|tcp $NS_PEER $H6 15000 agent"
  "peer -> host  ping                IPv4|answers|icmp $NS_PEER $H4"
  "peer -> host  ping                IPv6|answers|icmp $NS_PEER $H6"
  "host -> peer  TCP 80   (own conn) IPv4|connects|tcp $NS_HOST $P4 80 web"
  "host -> peer  TCP 80   (own conn) IPv6|connects|tcp $NS_HOST $P6 80 web"
  "host -> peer  TCP 23   (telnet)   IPv4|blocked|tcp $NS_HOST $P4 23 telnet"
  "host -> peer  TCP 23   (telnet)   IPv6|blocked|tcp $NS_HOST $P6 23 telnet"
)

colour() { # OUTCOME EXPECTED
  if [[ $1 == "$2" ]]; then printf '%s%-10s%s' "$green" "$1" "$reset"; else printf '%s%-10s%s' "$red" "$1" "$reset"; fi
}

# Runs every probe without the firewall, and later with it, and prints both.
declare -A BEFORE=()
probe_without_firewall() {
  local entry label cmd
  for entry in "${PROBES[@]}"; do
    IFS='|' read -r label _ cmd <<<"$entry"
    # shellcheck disable=SC2086 # the command is words by design
    BEFORE[$label]=$($cmd)
  done
}

MISMATCHES=0
probe_table() {
  local entry label expected cmd outcome
  printf '    %-38s %-12s %-12s %s\n' "probe" "no firewall" "firewall" "settings say"
  printf '    %-38s %-12s %-12s %s\n' "-----" "-----------" "--------" "------------"
  for entry in "${PROBES[@]}"; do
    IFS='|' read -r label expected cmd <<<"$entry"
    # shellcheck disable=SC2086
    outcome=$($cmd)
    [[ $outcome == "$expected" ]] || MISMATCHES=$((MISMATCHES + 1))
    printf '    %-38s %-12s %s   %s\n' "$label" "${BEFORE[$label]}" "$(colour "$outcome" "$expected")" "$expected"
  done
}

wait_for() { # FILE TEXT
  local i
  for ((i = 0; i < 100; i++)); do
    grep -qF -- "$2" "$1" && return 0
    kill -0 "$HOST_PID" 2>/dev/null || return 1
    sleep 0.1
  done
  return 1
}

# The timer runs one job at a time: the start of a second poll marks the end
# of the first, and of any event it published.
poll_now() {
  local before target i
  before=$(grep -c '] RunPoll() ' "$WORK/trace" || true)
  for target in $((before + 1)) $((before + 2)); do
    kill -USR1 "$HOST_PID"
    for ((i = 0; i < 100; i++)); do
      (( $(grep -c '] RunPoll() ' "$WORK/trace" || true) >= target )) && break
      sleep 0.05
    done
  done
}

save_tables() {
  { in_host iptables-save; in_host ip6tables-save; } | grep -v '^# ' | sed -E 's/\[[0-9]+:[0-9]+\]/[0:0]/'
}

# --- the demo ----------------------------------------------------------------------

heading "Set-up"
cat <<EOF | indent
host namespace  $NS_HOST   veth-h  $H4/24  $H6/64   (runs firewall-host)
peer namespace  $NS_PEER   veth-p  $P4/24  $P6/64
iptables        $(iptables -V)
settings        ${EXAMPLE#"$here"/}
control socket  $CONTROL
EOF

# Installing rules makes the filter table and removing them leaves it, so
# it is made now, for the "before" picture to show what the host will find:
# with the legacy backend listing makes it, with nft the foreign rules below
# do. They stand for some other program's rules, which the module leaves
# alone.
in_host iptables -S >/dev/null
in_host ip6tables -S >/dev/null
in_host iptables -A INPUT -s 192.0.2.1/32 -j DROP
in_host ip6tables -A INPUT -s 2001:db8::1/128 -j DROP
save_tables >"$WORK/before"

heading "Tables in the host namespace before the start (a foreign rule in INPUT)"
show_tables

# Give the listeners a moment, and learn what passes with no firewall at all.
for i in $(seq 25); do [[ $(tcp "$NS_PEER" "$H4" 22 ssh) == connects ]] && break; sleep 0.2; done
probe_without_firewall

# Starts the host in its namespace and waits for its control socket. A
# restart appends to the same files; the state directory, which keeps the
# isolation across restarts, is the demo's own.
start_host() {
  touch "$WORK/stderr" "$WORK/events"
  local lines_before started
  lines_before=$(wc -l <"$WORK/stderr")
  started=$(grep -c "control socket " "$WORK/stderr" || true)
  # Not through in_host: a function in the background runs in a subshell,
  # and $! would be that shell rather than the host. `ip netns exec`
  # replaces itself with the command.
  ip netns exec "$NS_HOST" "$HOST_BIN" run "$SETTINGS" --trace-level 800 --trace-file "$WORK/trace" \
    --control "$CONTROL" --state-dir "$WORK/state" >>"$WORK/events" 2>>"$WORK/stderr" &
  HOST_PID=$!
  local i
  for ((i = 0; i < 100; i++)); do
    if (( $(grep -c "control socket " "$WORK/stderr" || true) > started )); then
      tail -n +"$((lines_before + 1))" "$WORK/stderr" | indent
      return 0
    fi
    kill -0 "$HOST_PID" 2>/dev/null || break
    sleep 0.1
  done
  echo "demo: the host did not start:" >&2
  cat "$WORK/stderr" >&2
  exit 1
}

heading "Starting firewall-host"
start_host

heading "Connections from the peer and from the host"
probe_table

heading "Chains the module installed (host namespace): one jump per built-in chain, at its head"
show_tables

expect() { # WHAT OUTCOME EXPECTED
  printf '    %-52s %s\n' "$1" "$(colour "$2" "$3")"
  [[ $2 == "$3" ]] || MISMATCHES=$((MISMATCHES + 1))
}
ctl() { # JSON: prints the request and the reply
  echo "    # firewall-host ctl '$1'"
  "$HOST_BIN" ctl --control "$CONTROL" "$1" | indent
}

heading "The administration agent's port 15000 ([agent] ports = 15000/tcp/in, openOstraPorts = true)"
echo "    its rules, under the tag \"ostra\", stand before the administrator's rules:"
in_host iptables -S vorn_input | grep -- '--dport 15000' | indent
in_host iptables -S vorn_output | grep -- '--sport 15000' | indent
expect "peer -> host TCP 15000 (agent)" "$(tcp "$NS_PEER" "$H4" 15000 agent)" connects
expect "peer -> host TCP 8080  (app, nobody's)" "$(tcp "$NS_PEER" "$H4" 8080 app)" blocked

heading "Turning openOstraPorts off (edit the settings, SIGHUP)"
sed -i 's/^openOstraPorts = true/openOstraPorts = false/' "$SETTINGS"
kill -HUP "$HOST_PID"
if ! wait_for "$WORK/stderr" "settings reloaded"; then
  echo "demo: the host did not reload its settings:" >&2
  cat "$WORK/stderr" >&2
  exit 1
fi
echo "    rules naming port 15000 now: $(in_host iptables -S | grep -c -- 'port 15000' || true)"
expect "peer -> host TCP 15000 (agent)" "$(tcp "$NS_PEER" "$H4" 15000 agent)" blocked

heading "A dynamic rule added and removed through firewall-host ctl"
# One incoming rule: the module lets its connections' replies out too.
web_rules='[{"kind":"access","action":0,"proto":6,"localPorts":[8080,8080],"side":"incoming"}]'
ctl "{\"cmd\":\"add-rules\",\"tag\":\"demo\",\"rules\":$web_rules}"
expect "peer -> host TCP 8080 (app)" "$(tcp "$NS_PEER" "$H4" 8080 app)" connects
echo "    # firewall-host ctl '{\"cmd\":\"status\"}' | jq -c '.tags.demo[]'"
"$HOST_BIN" ctl --control "$CONTROL" '{"cmd":"status"}' | jq -c '.tags.demo[]' | indent
ctl "{\"cmd\":\"remove-rules\",\"rules\":$web_rules}"
expect "peer -> host TCP 8080 (app)" "$(tcp "$NS_PEER" "$H4" 8080 app)" blocked
echo "    a rule the module cannot take is refused with its reason, and changes nothing:"
ctl '{"cmd":"add-rules","tag":"demo","rules":[{"kind":"access","action":0,"localPorts":[8080,8080]}]}' || true

heading "Deleting a module rule by hand"
rule=$(in_host iptables -S vorn_input | grep -- '--dport 22' | grep -- '--ctstate NEW -j ACCEPT' | head -n 1)
if [[ -z $rule ]]; then
  echo "demo: no rule for TCP 22 in vorn_input" >&2
  exit 1
fi
echo "    # iptables ${rule/#-A/-D}"
read -ra words <<<"${rule/#-A/-D}"
in_host iptables "${words[@]}"
echo "    peer -> host TCP 22 now: $(tcp "$NS_PEER" "$H4" 22 ssh)"

heading "Integrity poll (SIGUSR1; the host also polls every minute on its own)"
events_before=$(wc -l <"$WORK/events")
poll_now
# Lines about logged packets (the ssh rule logs) may come in meanwhile.
event=$(tail -n +"$((events_before + 1))" "$WORK/events" | grep -F '"event":"FirewallIntegrityBroken"' || true)
if [[ -z $event ]]; then
  echo "    no event was published"
  MISMATCHES=$((MISMATCHES + 1))
else
  echo "    event: $event"
  sed -n 's/.*"missing":"\(\([^"\\]\|\\.\)*\)".*/\1/p' <<<"$event" | sed 's/\\n/\n/g' | sed '/^$/d; s/^/    missing -> /'
fi
if in_host iptables -S vorn_input | grep -qxF -- "$rule"; then
  echo "    the rule is back:  $rule"
else
  echo "    ${red}the rule is still missing${reset}"
  MISMATCHES=$((MISMATCHES + 1))
fi
echo "    peer -> host TCP 22 now: $(tcp "$NS_PEER" "$H4" 22 ssh)"

heading "Logged packets (doLogAttempts = true): one JSON line each on standard output"
# The ssh rule logs already; a logging rule that blocks the web port is
# added at the end of the settings, as rule 8.
cat >>"$SETTINGS" <<'SETTINGS'

[rule no-web]
action = Block
direction = Incoming
protocol = TCP
localPorts = 80
doLogAttempts = true
SETTINGS
reloads=$(grep -c "settings reloaded" "$WORK/stderr" || true)
kill -HUP "$HOST_PID"
for ((i = 0; i < 100; i++)); do
  (( $(grep -c "settings reloaded" "$WORK/stderr" || true) > reloads )) && break
  sleep 0.1
done
echo "    added [rule no-web]: Block, Incoming, TCP, localPorts = 80, doLogAttempts = true (SIGHUP)"
lines_before=$(wc -l <"$WORK/events")
echo "    peer -> host TCP 22 (ssh) IPv4: $(tcp "$NS_PEER" "$H4" 22 ssh)"
echo "    peer -> host TCP 22 (ssh) IPv6: $(tcp "$NS_PEER" "$H6" 22 ssh)"
echo "    peer -> host TCP 80 (web) IPv4: $(tcp "$NS_PEER" "$H4" 80 web)"
sleep 0.5
# A blocked attempt is tried again by the peer's kernel: a line per try.
echo "    the host's lines about them:"
activity=$(tail -n +"$((lines_before + 1))" "$WORK/events" | grep -F '"event":"NetworkActivity' || true)
if [[ -z $activity ]]; then
  echo "    ${red}no network-activity line${reset}"
  MISMATCHES=$((MISMATCHES + 1))
else
  indent <<<"$activity"
fi
echo "    # firewall-host ctl '{\"cmd\":\"status\"}' | jq -c .packetLog"
"$HOST_BIN" ctl --control "$CONTROL" '{"cmd":"status"}' | jq -c .packetLog | indent

# --- network isolation ----------------------------------------------------------------

# Each: label, outcome while isolated, outcome otherwise, command.
ISO_PROBES=(
  "host -> peer  TCP 80 (excluded)   IPv4|connects|connects|tcp $NS_HOST $P4 80 web"
  "host -> peer  TCP 80              IPv6|blocked|connects|tcp $NS_HOST $P6 80 web"
  "peer -> host  TCP 22 (ssh)        IPv4|blocked|connects|tcp $NS_PEER $H4 22 ssh"
  "peer -> host  ping                IPv4|no answer|answers|icmp $NS_PEER $H4"
  "host loopback TCP 8080 (app)      IPv4|connects|connects|tcp $NS_HOST 127.0.0.1 8080 app"
)
isolation_probes() { # isolated|open
  local entry label when_isolated when_open cmd expected
  for entry in "${ISO_PROBES[@]}"; do
    IFS='|' read -r label when_isolated when_open cmd <<<"$entry"
    expected=$when_open
    [[ $1 == isolated ]] && expected=$when_isolated
    # shellcheck disable=SC2086 # the command is words by design
    expect "$label" "$($cmd)" "$expected"
  done
}
show_isolation() {
  echo "    # firewall-host ctl '{\"cmd\":\"isolation\"}' | jq -c '{isolated, backend, clients}'"
  "$HOST_BIN" ctl --control "$CONTROL" '{"cmd":"isolation"}' | jq -c '{isolated, backend, clients}' | indent
}
isolation_events_since() { # LINE
  tail -n +"$(($1 + 1))" "$WORK/events" | grep -F '"event":"HostIsolat' | indent || true
}

heading "Network isolation: client 31 cuts the host off, excluding host -> peer TCP 80 over IPv4"
save_tables >"$WORK/before-isolation"
events_before=$(wc -l <"$WORK/events")
ctl '{"cmd":"isolate","client":31,"kind":0,"rules":[{"remoteAddress":"10.77.0.2","protocol":6,"remotePortRange":{"start":80,"end":80}}]}' ||
  { echo "demo: the host refused to isolate" >&2; exit 1; }
echo "    the manager's choice of backend, from the trace:"
grep -oF "eBPF backend failed, fallback to iptables" "$WORK/trace" | head -n 1 | indent || true
echo "    events:"
isolation_events_since "$events_before"
isolation_probes isolated
echo "    the isolation chains (IPv4):"
{ in_host iptables -S vorn_pre_isolation; in_host iptables -S vorn_post_isolation; } 2>/dev/null | indent
show_isolation

heading "firewall-host killed with SIGKILL: the isolation stays in the kernel"
kill -KILL "$HOST_PID"
wait "$HOST_PID" 2>/dev/null || true
HOST_PID=
isolation_probes isolated

heading "firewall-host started again: the session comes back from its state directory"
events_before=$(wc -l <"$WORK/events")
start_host
for ((i = 0; i < 50; i++)); do
  "$HOST_BIN" ctl --control "$CONTROL" '{"cmd":"isolation"}' | jq -e '.clients | length == 1' >/dev/null 2>&1 && break
  sleep 0.1
done
show_isolation
echo "    events:"
isolation_events_since "$events_before"
isolation_probes isolated

heading "Client 31 releases the host"
events_before=$(wc -l <"$WORK/events")
ctl '{"cmd":"release","client":31}' || { echo "demo: the host refused the release" >&2; exit 1; }
echo "    events:"
isolation_events_since "$events_before"
isolation_probes open
if save_tables | cmp -s - "$WORK/before-isolation"; then
  echo "    iptables-save and ip6tables-save: identical to before the isolation"
else
  echo "    ${red}the tables differ from before the isolation:${reset}"
  save_tables | diff -u "$WORK/before-isolation" - | indent || true
  MISMATCHES=$((MISMATCHES + 1))
fi

heading "Stopping firewall-host (SIGTERM)"
stderr_before=$(wc -l <"$WORK/stderr")
kill -TERM "$HOST_PID"
wait "$HOST_PID" || echo "    ${red}the host exited with status $?${reset}"
HOST_PID=
tail -n +"$((stderr_before + 1))" "$WORK/stderr" | indent

heading "Tables in the host namespace after the stop"
show_tables
if save_tables | cmp -s - "$WORK/before"; then
  echo "    iptables-save and ip6tables-save: identical to before the start"
else
  echo "    ${red}the tables differ from before the start:${reset}"
  save_tables | diff -u "$WORK/before" - | indent || true
  MISMATCHES=$((MISMATCHES + 1))
fi

heading "Result"
if (( MISMATCHES == 0 )); then
  echo "    every outcome matched the settings; nothing was left behind"
else
  echo "    ${red}$MISMATCHES outcome(s) did not match${reset}"
  exit 1
fi
