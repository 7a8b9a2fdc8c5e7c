#!/usr/bin/env bash
# End-to-end test of network isolation through `firewall-host run` and its
# control socket: the host namespace is isolated by clients' `isolate`
# requests and judged by the traffic that still passes to and from the peer,
# over loopback, and between the peer and a third namespace that the host
# bridges to the peer's link; by the tables after release; by the events;
# across a SIGKILL and a SIGTERM of the host with its state directory
# kept; and by the re-resolution of a server's name, with the host's timer
# sped up.
#
#   isolation_e2e.sh FIREWALL_HOST
#
# Runs once per iptables backend (see e2e_lib.sh). Prints "ok - ..." /
# "not ok - ..." per check and "N passed, M failed" at the end; exits 0 only
# when nothing failed, 77 (skip) when not root.
set -euo pipefail

readonly SELF_DIR=$(dirname "$(realpath -e "$0")")
# shellcheck source=tests/e2e/e2e_lib.sh
source "$SELF_DIR/e2e_lib.sh"

e2e_suite "$0" "$@"

# The third namespace hangs off a bridge in the host namespace that also
# holds the host's end of the peer link: its traffic with the peer is
# bridged, never routed, and meets iptables only with bridge filtering on.
readonly NS_LAN=fwe2e-$$-lan L4=10.77.0.3
EXTRA_NAMESPACES+=("$NS_LAN")

# The peer plays every remote role: the server a client excludes, the
# administration server (port 14000, the agent listening on the host's
# 15000) and the name server of the host's resolv.conf.
readonly MGMT_PORT=14000 AGENT_PORT=15000
# The cloud network's TCP proxy, by name: the name the 11-minute
# re-resolution follows.
readonly PROXY_NAME=proxy.isolation.test PROXY_PORT=3128
# The timer runs this much faster in the re-resolution checks: the
# re-resolution every 2 s, the firewall's poll every 0.2 s.
readonly TIMER_SPEEDUP=330
readonly TCP443_V4='{"remoteAddress":"10.77.0.2","protocol":6,"remotePortRange":{"start":443,"end":443}}'
readonly TCP443_V6='{"remoteAddress":"fd77::2","protocol":6,"remotePortRange":{"start":443,"end":443}}'
# No protocol: a port match needs one, so this stands for TCP and UDP.
readonly ANY5353='{"remoteAddress":"10.77.0.2","remotePortRange":{"start":5353,"end":5353}}'
readonly TCP8443='{"remoteAddress":"10.77.0.2","protocol":6,"remotePortRange":{"start":8443,"end":8443}}'
readonly RULES_31="[$TCP443_V4,$TCP443_V6,$ANY5353]"

start_listeners() {
  start_tcp_listener "$NS_HOST" 22 host-22
  start_tcp_listener "$NS_HOST" 8080 host-8080
  start_tcp_listener "$NS_HOST" "$AGENT_PORT" agent-15000
  local port
  for port in 443 8443 8080 5353 53 3128 "$MGMT_PORT"; do start_tcp_listener "$NS_PEER" "$port" "peer-$port"; done
  start_tcp_listener "$NS_LAN" 3128 lan-3128
  start_udp_listener "$NS_PEER" 5353 "$DIR/udp-5353.log"
  start_udp_listener "$NS_PEER" 53 "$DIR/udp-53.log"
}

# The host's address moves from its end of the peer link to the bridge.
setup_bridge() {
  ip netns add "$NS_LAN"
  ip -n "$NS_HOST" link add br0 type bridge
  ip -n "$NS_HOST" addr del "$H4/24" dev veth-h
  ip -n "$NS_HOST" -6 addr del "$H6/64" dev veth-h
  ip -n "$NS_HOST" link set veth-h master br0
  ip -n "$NS_HOST" link add veth-lh type veth peer name veth-l netns "$NS_LAN"
  ip -n "$NS_HOST" link set veth-lh master br0
  ip -n "$NS_HOST" addr add "$H4/24" dev br0
  ip -n "$NS_HOST" -6 addr add "$H6/64" dev br0 nodad
  ip -n "$NS_HOST" link set veth-lh up
  ip -n "$NS_HOST" link set br0 up
  ip -n "$NS_LAN" addr add "$L4/24" dev veth-l
  ip -n "$NS_LAN" link set lo up
  ip -n "$NS_LAN" link set veth-l up
  # Off until isolation needs it, so that the suite sees the backend switch
  # it on and back. The switches belong to the host namespace alone.
  bridge_filtering_set 0
}
bridge_filtering_set() { # 0|1
  in_host sysctl -qw "net.bridge.bridge-nf-call-iptables=$1" "net.bridge.bridge-nf-call-ip6tables=$1"
}
bridge_filtering_is() { # 0|1
  [[ $(in_host cat /proc/sys/net/bridge/bridge-nf-call-iptables /proc/sys/net/bridge/bridge-nf-call-ip6tables) == "$1"$'\n'"$1" ]]
}

# The host's resolver is the peer, in this mount namespace only. The cloud
# proxy's name is answered from a hosts file of the suite's own, which the
# re-resolution checks rewrite in place (the host reads it on every look-up).
point_resolver_at_peer() {
  echo "nameserver $P4" >"$DIR/resolv.conf"
  mount --bind "$DIR/resolv.conf" /etc/resolv.conf
  proxy_resolves_to "$P4"
  mount --bind "$DIR/hosts" /etc/hosts
}
proxy_resolves_to() { # ADDRESS
  printf '127.0.0.1 localhost\n::1 localhost\n%s %s\n' "$1" "$PROXY_NAME" >"$DIR/hosts"
}

precheck_network() {
  save_baseline
  local all=0
  eventually 25 tcp_answer "$NS_PEER" "$H4" 22 host-22 || all=1
  eventually 25 tcp_answer "$NS_HOST" "$P4" 8080 peer-8080 || all=1
  eventually 25 tcp_answer "$NS_HOST" "$P6" 443 peer-443 || all=1
  eventually 25 tcp_answer "$NS_LAN" "$P4" 8080 peer-8080 || all=1
  udp_reaches_from "$NS_HOST" "$P4" 53 "$DIR/udp-53.log" || all=1
  check "without the firewall every probe passes" test "$all" -eq 0
  (( all == 0 ))
}

write_settings() { # FILE BACKENDS_LINE
  cat >"$1" <<SETTINGS
[settings]
defaultIncomingAction = Allow
defaultIncomingPacketAction = Allow
openOstraPorts = true

[agent]
ports = $AGENT_PORT/tcp/in

[isolation]
managementServer = $P4:$MGMT_PORT
cloudProxyTcp = $PROXY_NAME:$PROXY_PORT
$2
SETTINGS
}

# --- requests ------------------------------------------------------------------

# ctl JSON: the reply goes to REPLY, the exit code to CTL_RC.
REPLY=
CTL_RC=0
ctl() {
  CTL_RC=0
  REPLY=$("$HOST_BIN" ctl --control "$CONTROL" "$1" 2>"$DIR/ctl.err") || CTL_RC=$?
}
# ctl_gives JSON CODE JQ_TEST: the request exits with CODE and its reply
# passes the jq test.
ctl_gives() {
  ctl "$1"
  if [[ $CTL_RC != "$2" ]] || ! jq -e "$3" >/dev/null 2>&1 <<<"$REPLY"; then
    note "request ${1:0:160}"
    note "exit $CTL_RC, reply ${REPLY:0:400} $(cat "$DIR/ctl.err")"
    return 1
  fi
}
isolate() { # CLIENT KIND RULES_JSON
  ctl_gives "{\"cmd\":\"isolate\",\"client\":$1,\"kind\":$2,\"rules\":$3}" 0 '.ok'
}
release() { # CLIENT
  ctl_gives "{\"cmd\":\"release\",\"client\":$1}" 0 '.ok'
}
# isolation_is JQ_TEST: the isolation request's reply passes the test.
isolation_is() { ctl_gives '{"cmd":"isolation"}' 0 "$1"; }
clients_are() { # IDS_JSON, e.g. [31,32]
  isolation_is "([.clients[].client] | sort) == $1 and .isolated == (($1 | length) > 0)"
}

events_named() { count_lines "$EVENTS" "\"event\":\"$1\""; }
# Counts are taken from a mark, which a new run of the host resets.
EVENT_MARK=(0 0)
mark_events() { EVENT_MARK=("$(events_named HostIsolated)" "$(events_named HostIsolationCanceled)"); }
events_since_mark_are() { # ISOLATED CANCELED
  (( $(events_named HostIsolated) - EVENT_MARK[0] == $1 &&
     $(events_named HostIsolationCanceled) - EVENT_MARK[1] == $2 ))
}
# events_are ISOLATED CANCELED: the counts since the mark come to these
# within a few seconds (events are printed as they are published).
events_are() {
  eventually 25 events_since_mark_are "$1" "$2" && return 0
  note "since the mark: HostIsolated $(( $(events_named HostIsolated) - EVENT_MARK[0] )),"\
    "HostIsolationCanceled $(( $(events_named HostIsolationCanceled) - EVENT_MARK[1] )); expected $1, $2"
  return 1
}

# The rules of both families, each line led by its family, sorted: a state
# to compare with another in which the same rules may come in another order.
sorted_rules() {
  save_tables "$DIR/sorted.save"
  awk '/^## / { family = $2 } /^-A / { print family " " $0 }' "$DIR/sorted.save" | sort
}
no_duplicate_rules() {
  local dups
  dups=$(sorted_rules | uniq -d)
  [[ -z $dups ]] && return 0
  sed 's/^/#   twice: /' <<<"$dups"
  return 1
}
same_rules_as() { # FILE (from sorted_rules)
  sorted_rules | cmp -s "$1" - && return 0
  sorted_rules | diff -u "$1" - | sed 's/^/#   /'
  return 1
}

# --- what passes while isolated ----------------------------------------------------

isolated_traffic_checks() {
  check "isolated, IPv4: peer -> host TCP 22 is blocked" tcp_no_answer "$NS_PEER" "$H4" 22 host-22
  check "isolated, IPv6: peer -> host TCP 22 is blocked" tcp_no_answer "$NS_PEER" "$H6" 22 host-22
  check "isolated, IPv4: peer -> host ping gets no answer" ping_fails "$NS_PEER" "$H4"
  check "isolated, IPv4: host -> peer TCP 8080 is blocked" tcp_no_answer "$NS_HOST" "$P4" 8080 peer-8080
  check "isolated, IPv6: host -> peer TCP 8080 is blocked" tcp_no_answer "$NS_HOST" "$P6" 8080 peer-8080
  check "isolated, IPv4: host -> peer ping gets no answer" ping_fails "$NS_HOST" "$P4"

  check "exclusion, IPv4: host -> peer TCP 443 connects" tcp_answer "$NS_HOST" "$P4" 443 peer-443
  check "exclusion, IPv6: host -> peer TCP 443 connects" tcp_answer "$NS_HOST" "$P6" 443 peer-443
  check "exclusion without protocol: host -> peer TCP 5353 connects" tcp_answer "$NS_HOST" "$P4" 5353 peer-5353
  check "exclusion without protocol: host -> peer UDP 5353 arrives" \
    udp_reaches_from "$NS_HOST" "$P4" 5353 "$DIR/udp-5353.log"

  check "management server: host -> its TCP $MGMT_PORT connects" tcp_answer "$NS_HOST" "$P4" "$MGMT_PORT" "peer-$MGMT_PORT"
  check "management server: it reaches the agent's TCP $AGENT_PORT on the host" \
    tcp_answer "$NS_PEER" "$H4" "$AGENT_PORT" agent-15000
  check "resolver of resolv.conf: host -> its UDP 53 arrives" udp_reaches_from "$NS_HOST" "$P4" 53 "$DIR/udp-53.log"
  check "resolver of resolv.conf: host -> its TCP 53 connects" tcp_answer "$NS_HOST" "$P4" 53 peer-53

  check "loopback, IPv4: TCP 8080 connects" tcp_answer "$NS_HOST" 127.0.0.1 8080 host-8080
  check "loopback, IPv6: TCP 8080 connects" tcp_answer "$NS_HOST" ::1 8080 host-8080

  # Both sides forget each other, so the connection needs solicitations
  # and advertisements both ways.
  ip -n "$NS_HOST" neigh flush dev br0
  ip -n "$NS_PEER" neigh flush dev veth-p
  check "neighbour discovery: with the caches flushed, host -> peer TCP 443 over IPv6 connects" \
    tcp_answer "$NS_HOST" "$P6" 443 peer-443

  check "bridge filtering is switched on in the host namespace" bridge_filtering_is 1
  check "bridged: the third namespace -> peer TCP 8080 is blocked" tcp_no_answer "$NS_LAN" "$P4" 8080 peer-8080
  check "bridged: the third namespace -> peer ping gets no answer" ping_fails "$NS_LAN" "$P4"
}

released_traffic_checks() { # WHEN
  check "$1, IPv4: peer -> host TCP 22 connects" tcp_answer "$NS_PEER" "$H4" 22 host-22
  check "$1, IPv6: peer -> host TCP 22 connects" tcp_answer "$NS_PEER" "$H6" 22 host-22
  check "$1, IPv4: host -> peer TCP 8080 connects" tcp_answer "$NS_HOST" "$P4" 8080 peer-8080
  check "$1: the third namespace -> peer TCP 8080 connects" tcp_answer "$NS_LAN" "$P4" 8080 peer-8080
}

not_in_trace() { ! grep -qF -- "$1" "$TRACE"; }
# Recovery isolates the host anew, at most once for all its sessions, and
# never lifts it on the way.
recovery_published_once() {
  (( $(events_named HostIsolated) <= 1 && $(events_named HostIsolationCanceled) == 0 ))
}
# After a crash the host never stopped being isolated: nothing to announce.
recovery_published_nothing() {
  (( $(events_named HostIsolated) == 0 && $(events_named HostIsolationCanceled) == 0 ))
}
ebpf_turned_off() {
  grep -qF "eBPF backend is turned off, using iptables" "$TRACE" && not_in_trace "eBPF backend failed"
}
no_stop_task_since() { # COUNT of "taskName=" in the trace before
  [[ $(count_lines "$TRACE" "taskName=") == "$1" ]] && grep -qF "There aren't isolation network clients" "$TRACE"
}
# The exclusions of clients 31 (TCP 443) and 32 (TCP 8443) both let through.
both_exclusions_hold() {
  tcp_answer "$NS_HOST" "$P4" 443 peer-443 && tcp_answer "$NS_HOST" "$P4" 8443 peer-8443
}
tables_and_isolation_unchanged() { # SAVED_TABLES ISOLATION_REPLY
  same_tables_as "$1" || return 1
  ctl '{"cmd":"isolation"}'
  [[ $REPLY == "$2" ]] || { note "isolation now: ${REPLY:0:300}"; return 1; }
}

# --- the phases ------------------------------------------------------------------------

# One client: what its exclusions let through, replacing them, release.
one_client_checks() {
  local tasks
  tasks=$(count_lines "$TRACE" "taskName=")
  check "turn-off with no client: ok, none stopped" ctl_gives '{"cmd":"turn-off"}' 0 '.ok and .stopped == 0'
  check "turn-off with no client starts no stop task" no_stop_task_since "$tasks"
  mark_events

  check "isolate client 31 with three exclusions: ok" isolate 31 0 "$RULES_31"
  check "the first backend failed and the manager fell back to iptables" \
    grep -qF "eBPF backend failed, fallback to iptables" "$TRACE"
  check "isolation lists client 31 with its rules, the iptables backend and the management server" \
    isolation_is '.isolated and .backend == "iptables" and (.clients | length == 1)
      and .clients[0].client == 31 and .clients[0].kind == 0 and (.clients[0].rules | length == 3)
      and (.builtIn | tostring | contains("10.77.0.2"))'
  check "one HostIsolated published" events_are 1 0
  isolated_traffic_checks

  check "a second isolate for client 31, with TCP 8443 instead: ok" isolate 31 0 "[$TCP8443]"
  check "replaced: host -> peer TCP 8443 connects" tcp_answer "$NS_HOST" "$P4" 8443 peer-8443
  check "replaced: host -> peer TCP 443 is blocked" tcp_no_answer "$NS_HOST" "$P4" 443 peer-443
  check "replacing the rules publishes no second HostIsolated" events_are 1 0

  check "release client 31: ok" release 31
  check "released: one HostIsolationCanceled published" events_are 1 1
  check "released: isolation lists no client" clients_are '[]'
  released_traffic_checks "released"
  check "released: bridge filtering is off again" bridge_filtering_is 0
  check "released: the tables are as before the isolation" same_tables_as "$NOT_ISOLATED"
}

# A rule the backend cannot express gives no firewall rule, and says so.
application_path_checks() {
  local empty=$DIR/isolated-no-rules.save
  isolate 33 0 '[]'
  save_tables "$empty"
  release 33
  check "isolate with a rule naming only an application: ok" \
    isolate 33 0 '[{"applicationPath":"/usr/bin/curl"}]'
  check "the application rule added no firewall rule" same_tables_as "$empty"
  check "the application rule's skipping is traced" grep -qF \
    "NetworkIsolation: exclude by application path '/usr/bin/curl' isn't support, this rule's skipped" "$TRACE"
  release 33
}

two_client_checks() {
  mark_events
  check "isolate client 31: ok" isolate 31 0 "$RULES_31"
  check "isolate client 32 (kind 2) with TCP 8443: ok" isolate 32 2 "[$TCP8443]"
  check "a second client publishes no second HostIsolated" events_are 1 0
  check "host -> peer: the exclusions of both clients hold" \
    both_exclusions_hold

  local saved=$DIR/two-clients.save isolation_before
  save_tables "$saved"
  ctl '{"cmd":"isolation"}'
  isolation_before=$REPLY
  check "release of an unknown client: exit 1 and an error" \
    ctl_gives '{"cmd":"release","client":99}' 1 '(.ok | not) and (.error | length > 0)'
  check "the unknown release changed neither the tables nor the isolation" \
    tables_and_isolation_unchanged "$saved" "$isolation_before"

  check "release client 31: ok" release 31
  check "one client left: still isolated, peer -> host TCP 22 blocked" tcp_no_answer "$NS_PEER" "$H4" 22 host-22
  check "one client left: its exclusion holds, host -> peer TCP 8443 connects" \
    tcp_answer "$NS_HOST" "$P4" 8443 peer-8443
  check "one client left: no HostIsolationCanceled" events_are 1 0
  check "one client left: isolation lists client 32" clients_are '[32]'
  check "release client 32: ok" release 32
  check "the last client released: HostIsolationCanceled" events_are 1 1
  check "the last client released: the tables are as before the isolation" same_tables_as "$NOT_ISOLATED"
}

turn_off_checks() {
  mark_events
  isolate 31 0 "$RULES_31"
  isolate 32 2 "[$TCP8443]"
  check "turn-off with clients of kinds 0 and 2: ok, both stopped" ctl_gives '{"cmd":"turn-off"}' 0 '.ok and .stopped == 2 and .stillIsolating == []'
  check "turn-off started the stop task of kind 0 once" test "$(count_lines "$TRACE" "taskName=TamberNetworkIsolationStop")" -eq 1
  check "turn-off started the stop task of kind 2 once" test "$(count_lines "$TRACE" "taskName=RuskNetworkIsolationStop")" -eq 1
  check "turn-off ended both sessions" eventually 25 clients_are '[]'
  check "turn-off: HostIsolationCanceled" events_are 1 1
  check "turn-off: the tables are as before the isolation" same_tables_as "$NOT_ISOLATED"
}

# SIGTERM lifts isolation and keeps the record; the next start isolates.
sigterm_checks() { # SETTINGS
  isolate 31 0 "$RULES_31"
  isolate 32 2 "[$TCP8443]"
  check "SIGTERM while isolated: the host exits cleanly" stop_host TERM
  check "after SIGTERM the tables are as before the start" same_tables_as "$BASELINE"
  check "after SIGTERM: peer -> host TCP 22 connects" tcp_answer "$NS_PEER" "$H4" 22 host-22
  check "after SIGTERM: bridge filtering is off again" bridge_filtering_is 0
  if ! start_host "$1"; then
    not_ok "the host starts again after SIGTERM"
    return 1
  fi
  check "started again: both sessions are back" eventually 25 clients_are '[31,32]'
  check "started again: isolated, peer -> host TCP 22 blocked" tcp_no_answer "$NS_PEER" "$H4" 22 host-22
  check "started again: at most one HostIsolated, no HostIsolationCanceled" recovery_published_once
  check "backends = iptables: the eBPF backend is turned off, not failed" ebpf_turned_off
}

no_ping_answer() { # PING_OUTPUT
  grep -q ' 0 received' "$1" || { sed 's/^/#   /' "$1"; return 1; }
}

# SIGKILL leaves the host isolated; a new start recovers every session.
crash_checks() { # SETTINGS
  local isolated=$DIR/isolated.rules
  sorted_rules >"$isolated"
  stop_host KILL || true
  check "killed with SIGKILL: the host stays isolated" tcp_no_answer "$NS_PEER" "$H4" 22 host-22
  check "killed with SIGKILL: the exclusions stay" tcp_answer "$NS_HOST" "$P4" 443 peer-443

  # The peer pings all through the new start: the takeover must not let one
  # packet through.
  ip netns exec "$NS_PEER" ping -n -q -i 0.01 -w 6 "$H4" >"$DIR/restart.ping" 2>&1 &
  local pinger=$!
  if ! start_host "$1"; then
    wait "$pinger" || true
    not_ok "the host starts again after SIGKILL"
    return 1
  fi
  wait "$pinger" || true
  check "restarted: not one packet passed while the new start took over" no_ping_answer "$DIR/restart.ping"
  check "restarted: both sessions recovered from the state directory" eventually 25 clients_are '[31,32]'
  check "restarted: isolated, peer -> host TCP 22 blocked" tcp_no_answer "$NS_PEER" "$H4" 22 host-22
  check "restarted: the recovered exclusions hold" both_exclusions_hold
  check "restarted: no rule stands twice" no_duplicate_rules
  check "restarted: the rules are those of before the kill" same_rules_as "$isolated"
  check "restarted: the isolation that went on through the crash publishes no event" recovery_published_nothing
  release 31
  release 32
  check "both released: the tables are as before the isolation" same_tables_as "$NOT_ISOLATED"
  check "both released: bridge filtering is off again, as before the crash" bridge_filtering_is 0
}

reresolutions() { count_lines "$TRACE" "Updated iptables VYX servers"; }
reresolved_since() { (( $(reresolutions) > $1 )); } # COUNT
# The re-resolution runs while isolated and the firewall follows the proxy's
# new address within a period of the timer.
reresolution_checks() { # SETTINGS
  proxy_resolves_to "$P4"
  if ! start_host "$1" --timer-speedup "$TIMER_SPEEDUP"; then
    not_ok "the host starts with its timer sped up"
    return 1
  fi
  isolate 41 0 '[]'
  check "the cloud proxy by name: host -> its TCP $PROXY_PORT at $P4 connects" \
    tcp_answer "$NS_HOST" "$P4" "$PROXY_PORT" "peer-$PROXY_PORT"
  local before
  before=$(reresolutions)
  proxy_resolves_to "$L4"
  check "re-resolution: the proxy's new address is taken up while isolated" \
    eventually 50 reresolved_since "$before"
  check "re-resolution: host -> the proxy's new address connects" \
    tcp_answer "$NS_HOST" "$L4" "$PROXY_PORT" "lan-$PROXY_PORT"
  check "re-resolution: the proxy's old address is blocked" \
    tcp_no_answer "$NS_HOST" "$P4" "$PROXY_PORT" "peer-$PROXY_PORT"
  release 41
  check "released, timer sped up: the tables are as before the isolation" same_tables_as "$NOT_ISOLATED"
  check "SIGTERM: the host exits cleanly" stop_host TERM
}

main() {
  if ! setup_network; then
    touch "$DIR/finished"
    return 0
  fi
  setup_bridge
  point_resolver_at_peer
  start_listeners
  if ! precheck_network; then
    note "the namespaces do not talk to each other; the other checks would mean nothing"
    touch "$DIR/finished"
    return 0
  fi

  local settings=$DIR/isolation.ini
  write_settings "$settings" ""
  if ! start_host "$settings"; then
    not_ok "the host starts with an [isolation] section"
    touch "$DIR/finished"
    return
  fi
  ok "the host starts with an [isolation] section"
  # The firewall's own rules, which isolation comes on top of.
  readonly NOT_ISOLATED=$DIR/not-isolated.save
  save_tables "$NOT_ISOLATED"
  released_traffic_checks "not isolated"
  one_client_checks
  application_path_checks
  two_client_checks
  turn_off_checks

  write_settings "$settings" "backends = iptables"
  if sigterm_checks "$settings" && crash_checks "$settings"; then
    check "SIGTERM: the host exits cleanly" stop_host TERM
    reresolution_checks "$settings"
    check "after exit the tables are as before the start" same_tables_as "$BASELINE"
  fi
  touch "$DIR/finished"
}

main
