#!/usr/bin/env bash
# End-to-end test of packet logging through `firewall-host run`: rules with
# doLogAttempts, real packets from the peer namespace and from the host, and
# the network-activity lines the host writes for them; the packet-log counts
# and the queue request on the control socket.
#
#   packet_logging_e2e.sh FIREWALL_HOST
#
# Runs once per iptables backend (see e2e_lib.sh). Prints "ok - ..." /
# "not ok - ..." per check and "N passed, M failed" at the end; exits 0 only
# when nothing failed, 77 (skip) when not root.
set -euo pipefail

readonly SELF_DIR=$(dirname "$(realpath -e "$0")")
# shellcheck source=tests/e2e/e2e_lib.sh
source "$SELF_DIR/e2e_lib.sh"

e2e_suite "$0" "$@"

# Fixed source ports, so that a line's remote port can be checked exactly.
readonly PEER_TCP_PORT=40312 PEER_UDP_PORT=40313 HOST_TCP_PORT=40314

start_listeners() {
  start_tcp_listener "$NS_HOST" 2222 host-2222
  start_udp_listener "$NS_HOST" 5353 "$DIR/udp-5353.log"
  start_tcp_listener "$NS_PEER" 8080 peer-8080
}

# Rule indexes count from 0 in file order: the two neighbour-discovery rules
# (IPv6 needs them once unmatched packets are blocked) are 0 and 1. The
# variant "moved" puts a rule in front of the blocked port's rule and renames
# it, so that its index, group and name all change.
write_settings() { # FILE VARIANT
  local filler='' blocked_name=ssh-blocked
  if [[ $2 == moved ]]; then
    blocked_name=ssh-moved
    filler='
[rule filler]
action = Allow
direction = Incoming
protocol = TCP
localPorts = 2999
'
  fi
  cat >"$1" <<SETTINGS
[settings]
defaultIncomingAction = Block
defaultIncomingPacketAction = Block
openOstraPorts = false

$(neighbour_discovery_rules)
$filler
[rule $blocked_name]
action = Block
direction = Incoming
protocol = TCP
localPorts = 2222
doLogAttempts = true

[rule dns]
name = name service
action = Allow
direction = Incoming
protocol = UDP
localPorts = 5353
doLogAttempts = true

[rule web-out]
action = Allow
direction = Outgoing
protocol = TCP
remotePorts = 8080
doLogAttempts = true

[rule ping]
action = Allow
direction = IncomingPacket
protocol = ICMP
icmpType = 8
doLogAttempts = true

[rule ping-reply]
action = Allow
direction = OutgoingPacket
protocol = ICMP
icmpType = 0
SETTINGS
}

# --- event lines ---------------------------------------------------------------------

# Lines after the first MARK of the events file; a line still being written
# is skipped rather than failing jq.
lines_since() { # MARK
  tail -n +"$(($1 + 1))" "$EVENTS"
}
event_count() { wc -l <"$EVENTS"; }

# has_line MARK JQ_CONDITION: some line since MARK meets the condition.
has_line() {
  [[ -n $(lines_since "$1" | jq -R -c "fromjson? | select($2)" 2>/dev/null | head -n 1) ]]
}
count_matching() { # MARK JQ_CONDITION
  lines_since "$1" | jq -R -c "fromjson? | select($2)" 2>/dev/null | wc -l
}

# expect_line MARK JQ_CONDITION: waits up to 5 s for the line; notes the
# lines seen when it does not come.
expect_line() {
  eventually 25 has_line "$1" "$2" && return 0
  note "no line since $1 with: $2"
  lines_since "$1" | tail -n 8 | sed 's/^/#   line: /'
  return 1
}

# The exact keys of a line with ports and one without: no more, no less.
readonly WITH_PORTS='["direction","event","ipVersion","localAddress","localPort","payloadLength","protocol","remoteAddress","remotePort","ruleIndex","ruleName"]'
readonly WITHOUT_PORTS='["direction","event","ipVersion","localAddress","payloadLength","protocol","remoteAddress","ruleIndex","ruleName"]'

# A connection attempt from a fixed port; the listener's word proves it got
# through.
tcp_from() { # NS SOCAT_ADDRESS
  ip netns exec "$1" timeout 5 socat -T 2 - "$2,connect-timeout=1" </dev/null 2>/dev/null || true
}

# --- control socket ------------------------------------------------------------------

REPLY=
ctl_gives() { # JSON JQ_TEST: exits 0 and the reply passes the test
  local rc=0
  REPLY=$("$HOST_BIN" ctl --control "$CONTROL" "$1" 2>"$DIR/ctl.err") || rc=$?
  if (( rc != 0 )) || ! jq -e "$2" >/dev/null 2>&1 <<<"$REPLY"; then
    note "request $1: exit $rc, reply ${REPLY:0:300} $(cat "$DIR/ctl.err")"
    return 1
  fi
}

# --- checks ----------------------------------------------------------------------------

precheck_network() {
  save_baseline
  local all=0
  eventually 25 tcp_answer "$NS_PEER" "$H4" 2222 host-2222 || all=1
  eventually 25 tcp_answer "$NS_PEER" "$H6" 2222 host-2222 || all=1
  eventually 25 tcp_answer "$NS_HOST" "$P4" 8080 peer-8080 || all=1
  check "without the firewall every probe passes" test "$all" -eq 0
  (( all == 0 ))
}

listener_thread_runs() {
  grep -qx vornNfLogPoll /proc/"$HOST_PID"/task/*/comm 2>/dev/null
}

incoming_tcp_checks() { # RULE_INDEX RULE_NAME
  local index=$1 name=$2 mark
  mark=$(event_count)
  check "IPv4: TCP 2222 from the peer is blocked" \
    eval '[[ $(tcp_from "$NS_PEER" "TCP4:$H4:2222,sourceport=$PEER_TCP_PORT,reuseaddr") != *host-2222* ]]'
  check "IPv4: the attempt gives NetworkActivityBlocked, Incoming, with its addresses, ports, protocol and rule" \
    expect_line "$mark" ".event == \"NetworkActivityBlocked\" and .direction == \"Incoming\" and .ipVersion == 4
      and .protocol == 6 and .localAddress == \"$H4\" and .localPort == 2222 and .remoteAddress == \"$P4\"
      and .remotePort == $PEER_TCP_PORT and .ruleIndex == $index and .ruleName == \"$name\"
      and (.payloadLength | type == \"number\" and . >= 40) and (keys == $WITH_PORTS)"

  mark=$(event_count)
  check "IPv6: TCP 2222 from the peer is blocked" \
    eval '[[ $(tcp_from "$NS_PEER" "TCP6:[$H6]:2222,sourceport=$PEER_TCP_PORT,reuseaddr") != *host-2222* ]]'
  check "IPv6: the attempt gives NetworkActivityBlocked with ipVersion 6 and the IPv6 addresses" \
    expect_line "$mark" ".event == \"NetworkActivityBlocked\" and .direction == \"Incoming\" and .ipVersion == 6
      and .protocol == 6 and .localAddress == \"$H6\" and .localPort == 2222 and .remoteAddress == \"$P6\"
      and .remotePort == $PEER_TCP_PORT and .ruleIndex == $index and .ruleName == \"$name\""
}

traffic_checks() {
  incoming_tcp_checks 2 ssh-blocked

  local mark
  mark=$(event_count)
  UDP_SEQ=$((UDP_SEQ + 1))
  in_peer socat -u STDIN "UDP4-SENDTO:$H4:5353,sourceport=$PEER_UDP_PORT,reuseaddr" <<<"datagram-$UDP_SEQ" 2>/dev/null || true
  check "IPv4: the datagram to UDP 5353 gets through" wait_file_has "$DIR/udp-5353.log" "datagram-$UDP_SEQ" 15
  check "IPv4: it gives NetworkActivityAllowed with protocol 17, its ports and the rule's own name" \
    expect_line "$mark" ".event == \"NetworkActivityAllowed\" and .direction == \"Incoming\" and .ipVersion == 4
      and .protocol == 17 and .localAddress == \"$H4\" and .localPort == 5353 and .remoteAddress == \"$P4\"
      and .remotePort == $PEER_UDP_PORT and .ruleIndex == 3 and .ruleName == \"name service\""

  mark=$(event_count)
  check "IPv4: the host's own TCP connection to the peer's 8080 connects" \
    eval '[[ $(tcp_from "$NS_HOST" "TCP4:$P4:8080,sourceport=$HOST_TCP_PORT,reuseaddr") == *peer-8080* ]]'
  check "IPv4: it gives NetworkActivityAllowed, Outgoing, with the host's address and port as local" \
    expect_line "$mark" ".event == \"NetworkActivityAllowed\" and .direction == \"Outgoing\" and .ipVersion == 4
      and .protocol == 6 and .localAddress == \"$H4\" and .localPort == $HOST_TCP_PORT
      and .remoteAddress == \"$P4\" and .remotePort == 8080 and .ruleIndex == 4 and .ruleName == \"web-out\""

  mark=$(event_count)
  check "IPv4: the peer's ping is answered" ping_ok "$NS_PEER" "$H4"
  check "IPv4: it gives NetworkActivityAllowed with protocol 1 and no ports" \
    expect_line "$mark" ".event == \"NetworkActivityAllowed\" and .direction == \"Incoming\" and .ipVersion == 4
      and .protocol == 1 and .localAddress == \"$H4\" and .remoteAddress == \"$P4\"
      and .ruleIndex == 5 and .ruleName == \"ping\" and (keys == $WITHOUT_PORTS)"
  check "no line names a rule that does not log" \
    eval '! has_line 0 "(.event | startswith(\"NetworkActivity\")) and (.ruleIndex | IN(2, 3, 4, 5) | not)"'
}

# Delivered counts are compared with the lines of each group once the lines
# have come in.
status_counts_match() { # MARK
  ctl_gives '{"cmd":"status"}' '.packetLog.groups | length > 0' || return 1
  local group index delivered lines
  while read -r group index delivered; do
    lines=$(count_matching "$1" "(.event | startswith(\"NetworkActivity\")) and .ruleIndex == $index")
    [[ $delivered == "$lines" ]] || { note "group $group: delivered $delivered, lines $lines"; return 1; }
  done < <(jq -r '.packetLog.groups[] | "\(.group) \(.ruleIndex) \(.delivered)"' <<<"$REPLY")
}

status_checks() { # MARK (the lines since the logger last started)
  check "status lists the logging rules' groups in rule order, each with its rule's index and name" \
    ctl_gives '{"cmd":"status"}' \
    '[.packetLog.groups[] | [.group, .ruleIndex, .ruleName]]
       == [[10003, 2, "ssh-blocked"], [10004, 3, "name service"], [10005, 4, "web-out"], [10006, 5, "ping"]]'
  check "status: every group delivered some events, none lost, no overrun" \
    ctl_gives '{"cmd":"status"}' \
    '(.packetLog.groups | length == 4) and all(.packetLog.groups[]; .delivered > 0 and .lost == 0)
     and .packetLog.overruns == 0'
  check "status: each group's delivered count equals its lines" eventually 25 status_counts_match "$1"
}

reload_checks() { # SETTINGS
  local before mark
  before=$(count_lines "$ERRS" "settings reloaded")
  write_settings "$1" moved
  kill -HUP "$HOST_PID"
  check "SIGHUP with the blocked port's rule moved to index 3 and renamed is applied" \
    wait_for_stderr "settings reloaded" $((before + 1))
  mark=$(event_count)
  incoming_tcp_checks 3 ssh-moved
  check "after the reload status shows the moved rule's group 10004 under its new name" \
    ctl_gives '{"cmd":"status"}' \
    '.packetLog.groups[0] | .group == 10004 and .ruleIndex == 3 and .ruleName == "ssh-moved" and .delivered > 0'
  check "after the reload no line names the old index 2" \
    eval '! has_line "$mark" ".ruleIndex == 2"'

  # A file that cannot be read changes nothing, names included.
  echo 'this is not settings' >>"$1"
  kill -HUP "$HOST_PID"
  check "SIGHUP with a bad file is refused" wait_for_stderr "the rules in force stay" 1
  mark=$(event_count)
  tcp_from "$NS_PEER" "TCP4:$H4:2222,sourceport=$PEER_TCP_PORT,reuseaddr" >/dev/null
  check "after the refused reload the lines still name the rule in force" \
    expect_line "$mark" ".event == \"NetworkActivityBlocked\" and .ruleIndex == 3 and .ruleName == \"ssh-moved\""
}

queue_checks() {
  local first
  check "queue with count 4: ok and a number" ctl_gives '{"cmd":"queue","count":4}' '.ok and (.first | type == "number")'
  first=$(jq -r .first <<<"$REPLY")
  check "a second queue request does not overlap the first's numbers" \
    ctl_gives '{"cmd":"queue","count":4}' ".ok and (.first >= $first + 4 or .first + 4 <= $first)"
  REPLY=$("$HOST_BIN" ctl --control "$CONTROL" '{"cmd":"queue","count":70000}' 2>/dev/null) || true
  check "queue with a count out of range is refused naming count" \
    eval 'jq -e "(.ok | not) and (.error | startswith(\"count: \"))" >/dev/null <<<"$REPLY"'
}

main() {
  network_ready || return 0

  local settings=$DIR/logging.ini
  write_settings "$settings" initial
  if ! start_host "$settings"; then
    not_ok "the host starts with logging rules"
    touch "$DIR/finished"
    return
  fi
  ok "the host starts with logging rules"
  check "the module's packet-log thread runs in the host" listener_thread_runs

  traffic_checks
  status_checks 0
  reload_checks "$settings"
  queue_checks

  check "SIGTERM: the host exits cleanly" stop_host TERM
  check "SIGTERM: no message about objects still alive" eval '! grep -q "still alive" "$ERRS"'
  check "after exit the tables are as before the start" same_tables_as "$BASELINE"
  touch "$DIR/finished"
}

main
