#!/usr/bin/env bash
# End-to-end test of `firewall-host run`: the module enforcing settings on a
# real kernel, judged by the traffic that passes between two network
# namespaces and by the tables it leaves behind.
#
#   firewall_host_e2e.sh FIREWALL_HOST EXAMPLES_DIR
#
# The whole suite runs once per iptables backend (legacy, nft), each time in
# a private mount namespace in which the iptables tool names run that backend.
# Nothing runs in the machine's own network namespace: the namespaces, the
# veth pair between them and every firewall change live and die with the
# suite. Prints "ok - ..." / "not ok - ..." per check and "N passed, M failed"
# at the end; exits 0 only when nothing failed, 77 (skip) when not root.
set -euo pipefail

readonly SELF_DIR=$(dirname "$(realpath -e "$0")")
# shellcheck source=tests/e2e/e2e_lib.sh
source "$SELF_DIR/e2e_lib.sh"

if [[ ${FWE2E_INNER:-} != 1 ]]; then
  (( $# == 2 )) || die "usage: $0 FIREWALL_HOST EXAMPLES_DIR"
  [[ -d $2 ]] || die "no examples directory at '$2'"
  set -- "$1" "$(realpath -e "$2")"
fi
e2e_suite "$0" "$@"
readonly EXAMPLES=$4

start_listeners() {
  start_tcp_listener "$NS_HOST" 22 hello-22
  start_tcp_listener "$NS_HOST" 8080 hello-8080
  start_udp_listener "$NS_HOST" 5353 "$DIR/udp-5353.log"
  start_udp_listener "$NS_HOST" 5354 "$DIR/udp-5354.log"
  start_tcp_listener "$NS_PEER" 8080 peer-8080
  start_tcp_listener "$NS_PEER" 23 peer-23
}

# udp_checks ADDRESS: a datagram to 5353 reaches the listener, one to 5354
# does not. The blocked one is sent first: once the allowed one has arrived,
# the blocked one would have arrived too.
udp_checks() {
  local addr=$1 fam=IPv4
  [[ $addr == *:* ]] && fam=IPv6
  UDP_SEQ=$((UDP_SEQ + 1))
  local tok_blocked=blocked-$UDP_SEQ tok_allowed=allowed-$UDP_SEQ
  udp_send "$addr" 5354 "$tok_blocked"
  udp_send "$addr" 5353 "$tok_allowed"
  check "$fam: UDP to allowed port 5353 reaches the listener" wait_file_has "$DIR/udp-5353.log" "$tok_allowed" 15
  sleep 0.2
  check "$fam: UDP to port 5354 (no rule) does not reach the listener" \
    eval '! file_has "$DIR/udp-5354.log" "$tok_blocked"'
}

# Events published since a line count of the events file.
events_since() { tail -n +"$(($1 + 1))" "$EVENTS"; }
event_count() { wc -l <"$EVENTS"; }

# json_field LINE NAME: the string value of NAME, escapes left as they are.
json_field() {
  sed -n 's/.*"'"$2"'":"\(\([^"\\]\|\\.\)*\)".*/\1/p' <<<"$1"
}

# Exactly one integrity event since MARK; its line goes to EVENT_LINE.
EVENT_LINE=
one_integrity_event_since() { # MARK
  local lines
  lines=$(events_since "$1")
  EVENT_LINE=$lines
  local n
  n=$(grep -c '"event":"FirewallIntegrityBroken"' <<<"$lines" || true)
  if (( n != 1 )); then
    note "expected one FirewallIntegrityBroken event, got $n:"
    sed 's/^/#   /' <<<"$lines"
    return 1
  fi
}
field_names() { # FIELD TEXT: the event's FIELD holds TEXT
  local value
  value=$(json_field "$EVENT_LINE" "$1")
  [[ $value == *"$2"* ]] || { note "$1 is '$value', wanted it to name '$2'"; return 1; }
}
field_empty() { # FIELD
  local value
  value=$(json_field "$EVENT_LINE" "$1")
  [[ -z $value ]] || { note "$1 is '$value', wanted it empty"; return 1; }
}

# --- settings ----------------------------------------------------------------------

# The reply to an echo request belongs to a tracked incoming "connection"
# that no stateful rule allowed, so the default incoming block would drop it
# on the way out: answering pings takes a packet rule for the reply as well.
# Neighbour discovery is untracked and would fall to the default packet
# block, so its two messages are allowed for IPv6 to work at all.
write_settings() { # FILE VARIANT
  local file=$1 variant=$2
  {
    cat <<'EOF'
[settings]
defaultIncomingAction = Block
defaultIncomingPacketAction = Block
openOstraPorts = false
EOF
    if [[ $variant == initial ]]; then
      cat <<'EOF'

[rule ssh]
action = Allow
direction = Incoming
protocol = TCP
localPorts = 22
doLogAttempts = true

[rule ping]
action = Allow
direction = IncomingPacket
protocol = ICMP
icmpType = 8
EOF
    else
      cat <<'EOF'

[rule web]
action = Allow
direction = Incoming
protocol = TCP
localPorts = 8080
EOF
    fi
    cat <<'EOF'

[rule mdns]
action = Allow
direction = Incoming
protocol = UDP
localPorts = 5353

[rule ping6]
action = Allow
direction = IncomingPacket
protocol = ICMPv6
icmpType = 128

[rule echo-reply]
action = Allow
direction = OutgoingPacket
protocol = ICMP
icmpType = 0

[rule echo-reply6]
action = Allow
direction = OutgoingPacket
protocol = ICMPv6
icmpType = 129

EOF
    neighbour_discovery_rules
    cat <<'EOF'

[rule no-telnet-out]
action = Block
direction = Outgoing
protocol = TCP
remotePorts = 23
EOF
    if [[ $variant == broken ]]; then
      cat <<'EOF'

[rule bad-mask]
action = Allow
direction = Incoming
protocol = TCP
localPorts = 9000
remoteAddress = 10.0.0.0/33
EOF
    fi
  } >"$file"
}

# --- the checks ---------------------------------------------------------------------

precheck_network() {
  save_baseline

  # Without the module everything below passes; the checks that expect a
  # block later are meaningful only because of that.
  local fam addr paddr all=0
  for fam in 4 6; do
    if [[ $fam == 4 ]]; then addr=$H4 paddr=$P4; else addr=$H6 paddr=$P6; fi
    eventually 25 tcp_answer "$NS_PEER" "$addr" 22 hello-22 || all=1
    eventually 25 tcp_answer "$NS_PEER" "$addr" 8080 hello-8080 || all=1
    eventually 25 tcp_answer "$NS_HOST" "$paddr" 8080 peer-8080 || all=1
    eventually 25 tcp_answer "$NS_HOST" "$paddr" 23 peer-23 || all=1
    eventually 5 ping_ok "$NS_PEER" "$addr" || all=1
    UDP_SEQ=$((UDP_SEQ + 1))
    udp_send "$addr" 5354 "pre-$UDP_SEQ"
    wait_file_has "$DIR/udp-5354.log" "pre-$UDP_SEQ" 15 || all=1
  done
  check "without the firewall every probe passes on both families" test "$all" -eq 0
  (( all == 0 ))
}

traffic_initial() {
  local fam addr paddr
  for fam in IPv4 IPv6; do
    if [[ $fam == IPv4 ]]; then addr=$H4 paddr=$P4; else addr=$H6 paddr=$P6; fi
    check "$fam: TCP to allowed port 22 connects" tcp_answer "$NS_PEER" "$addr" 22 hello-22
    check "$fam: TCP to port 8080 (listening, no rule) is blocked" tcp_no_answer "$NS_PEER" "$addr" 8080 hello-8080
    udp_checks "$addr"
    check "$fam: host's own connection to the peer gets its replies" tcp_answer "$NS_HOST" "$paddr" 8080 peer-8080
    check "$fam: host's outgoing TCP to port 23 is blocked" tcp_no_answer "$NS_HOST" "$paddr" 23 peer-23
  done
  check "IPv4: ping passes (echo request allowed by rule)" ping_ok "$NS_PEER" "$H4"
  check "IPv6: ping -6 passes (echo request allowed by rule)" ping_ok "$NS_PEER" "$H6"
}

integrity_checks() {
  local rule mark

  # A module rule deleted by hand comes back, reported once as missing.
  rule=$(chain_rules iptables vorn_input | grep -- '--dport 5353' | grep -- 'NEW' | head -n 1)
  if [[ -z $rule ]]; then
    not_ok "IPv4: vorn_input holds the rule for UDP 5353"
  else
    mark=$(event_count)
    read -ra words <<<"$rule"
    in_host iptables -D vorn_input "${words[@]}"
    poll_now || true
    if one_integrity_event_since "$mark"; then
      ok "IPv4: deleting a module rule gives exactly one FirewallIntegrityBroken event"
      check "IPv4: the event's \"missing\" names the deleted rule" field_names missing "IPv4 filter vorn_input: $rule"
      check "IPv4: the event's \"extra\" is empty" field_empty extra
    else
      not_ok "IPv4: deleting a module rule gives exactly one FirewallIntegrityBroken event"
    fi
    check "IPv4: the deleted rule is back" chain_has_rule iptables vorn_input "$rule"
  fi

  rule=$(chain_rules ip6tables vorn_output | grep -- '--dport 23' | grep -- 'NEW' | head -n 1)
  if [[ -z $rule ]]; then
    not_ok "IPv6: vorn_output holds the rule for TCP 23"
  else
    mark=$(event_count)
    read -ra words <<<"$rule"
    in_host ip6tables -D vorn_output "${words[@]}"
    poll_now || true
    if one_integrity_event_since "$mark"; then
      ok "IPv6: deleting a module rule gives exactly one FirewallIntegrityBroken event"
      check "IPv6: the event's \"missing\" names the deleted rule" field_names missing "IPv6 filter vorn_output: $rule"
    else
      not_ok "IPv6: deleting a module rule gives exactly one FirewallIntegrityBroken event"
    fi
    check "IPv6: the deleted rule is back" chain_has_rule ip6tables vorn_output "$rule"
  fi
  check "IPv6: host's outgoing TCP to port 23 is blocked again after the repair" \
    tcp_no_answer "$NS_HOST" "$P6" 23 peer-23

  # The jump, deleted by hand, returns to the head of INPUT, above the rule
  # that was there before the host started.
  mark=$(event_count)
  in_host iptables -D INPUT -j vorn_input
  poll_now || true
  if one_integrity_event_since "$mark"; then
    ok "IPv4: deleting the jump from INPUT gives exactly one FirewallIntegrityBroken event"
    check "IPv4: the event's \"missing\" names the jump" field_names missing "IPv4 filter INPUT: -j vorn_input"
  else
    not_ok "IPv4: deleting the jump from INPUT gives exactly one FirewallIntegrityBroken event"
  fi
  check "IPv4: the jump is back at the head of INPUT" first_rule_is iptables INPUT "-j vorn_input"
  check "IPv4: TCP to port 8080 is blocked again after the jump's repair" \
    tcp_no_answer "$NS_PEER" "$H4" 8080 hello-8080

  # Foreign rules in the module's own chains are reported as extra and removed.
  local foreign4="-s 10.77.0.99/32 -j DROP" foreign6="-s fd77::99/128 -j DROP"
  mark=$(event_count)
  read -ra words <<<"$foreign4"
  in_host iptables -A vorn_input "${words[@]}"
  read -ra words <<<"$foreign6"
  in_host ip6tables -A vorn_input "${words[@]}"
  poll_now || true
  if one_integrity_event_since "$mark"; then
    ok "foreign rules in vorn_input (both families) give exactly one FirewallIntegrityBroken event"
    check "IPv4: the event's \"extra\" names the foreign rule" field_names extra "IPv4 filter vorn_input: $foreign4"
    check "IPv6: the event's \"extra\" names the foreign rule" field_names extra "IPv6 filter vorn_input: $foreign6"
    check "the event's \"missing\" is empty" field_empty missing
  else
    not_ok "foreign rules in vorn_input (both families) give exactly one FirewallIntegrityBroken event"
  fi
  check "IPv4: the foreign rule is gone from vorn_input" eval '! chain_has_rule iptables vorn_input "$foreign4"'
  check "IPv6: the foreign rule is gone from vorn_input" eval '! chain_has_rule ip6tables vorn_input "$foreign6"'

  # Foreign rules in built-in chains are none of the module's business.
  local builtin4="-s 10.77.0.98/32 -j DROP" builtin6="-s fd77::98/128 -j DROP"
  mark=$(event_count)
  read -ra words <<<"$builtin4"
  in_host iptables -A INPUT "${words[@]}"
  read -ra words <<<"$builtin6"
  in_host ip6tables -A INPUT "${words[@]}"
  poll_now || true
  # Lines about logged packets may come in meanwhile; only integrity events count.
  check "foreign rules appended to INPUT are not reported" \
    test "$(events_since "$mark" | grep -c '"event":"FirewallIntegrityBroken"' || true)" -eq 0
  check "IPv4: the foreign rule in INPUT is left alone" chain_has_rule iptables INPUT "$builtin4"
  check "IPv6: the foreign rule in INPUT is left alone" chain_has_rule ip6tables INPUT "$builtin6"
  read -ra words <<<"$builtin4"
  in_host iptables -D INPUT "${words[@]}" || true
  read -ra words <<<"$builtin6"
  in_host ip6tables -D INPUT "${words[@]}" || true

  check "exactly one jump to vorn_input in INPUT (IPv4)" test "$(jump_count iptables INPUT vorn_input)" -eq 1
  check "exactly one jump to vorn_input in INPUT (IPv6)" test "$(jump_count ip6tables INPUT vorn_input)" -eq 1
}

reload_checks() {
  local settings=$1
  write_settings "$settings" changed
  kill -HUP "$HOST_PID"
  check "SIGHUP with changed settings: \"settings reloaded\"" wait_for_stderr "settings reloaded" 1
  local fam addr
  for fam in IPv4 IPv6; do
    if [[ $fam == IPv4 ]]; then addr=$H4; else addr=$H6; fi
    check "$fam: after reload, TCP to port 22 (rule removed) is blocked" tcp_no_answer "$NS_PEER" "$addr" 22 hello-22
    check "$fam: after reload, TCP to port 8080 (rule added) connects" tcp_answer "$NS_PEER" "$addr" 8080 hello-8080
  done
  check "IPv4: after reload, ping (rule removed) gets no answer" ping_fails "$NS_PEER" "$H4"
  check "IPv6: after reload, ping -6 (rule kept) passes" ping_ok "$NS_PEER" "$H6"
  udp_checks "$H4"

  local before=$DIR/before-broken.save
  save_tables "$before"
  write_settings "$settings" broken
  kill -HUP "$HOST_PID"
  check "SIGHUP with a broken file: the error is printed and the rules in force stay" \
    wait_for_stderr "the rules in force stay" 1
  check "the message names the rule and the field" \
    eval 'grep -F "the rules in force stay" "$ERRS" | grep -qF "[rule bad-mask] remoteAddress"'
  check "after the broken reload the tables are unchanged" same_tables_as "$before"
  poll_now || true
  check "a poll after the broken reload changes nothing" same_tables_as "$before"
  check "IPv4: after the broken reload, TCP to port 8080 still connects" tcp_answer "$NS_PEER" "$H4" 8080 hello-8080
  check "IPv4: after the broken reload, TCP to port 22 is still blocked" tcp_no_answer "$NS_PEER" "$H4" 22 hello-22
}

# vorn_* chains and their rule counts, both families, one line per chain.
chain_census() {
  local tool chain
  for tool in iptables ip6tables; do
    for chain in $(in_host "$tool" -S | awk '$1 == "-N" && $2 ~ /^vorn_/ { print $2 }' | sort); do
      echo "$tool $chain $(chain_rules "$tool" "$chain" | wc -l)"
    done
  done
}

crash_checks() {
  local settings=$1
  write_settings "$settings" initial
  if ! start_host "$settings"; then
    not_ok "crash: the host starts"
    return
  fi
  local first=$DIR/census.first second=$DIR/census.second
  chain_census >"$first"
  check "crash: the first run installs vorn chains" test -s "$first"
  kill -KILL "$HOST_PID"
  wait "$HOST_PID" 2>/dev/null || true
  HOST_PID=
  check "crash: after kill -9 the rules are still installed" eval 'chain_census | cmp -s - "$first"'

  # A period of one second instead of a minute: the repair must come from
  # the timer alone.
  if ! start_host "$settings" --timer-speedup 60; then
    not_ok "crash: the host starts again over the leftovers"
    return
  fi
  chain_census >"$second"
  if cmp -s "$first" "$second"; then
    ok "crash: the restart converges to the same chains and rule counts"
  else
    not_ok "crash: the restart converges to the same chains and rule counts"
    diff -u "$first" "$second" | sed 's/^/#   /'
  fi
  local tool
  for tool in iptables ip6tables; do
    check "crash: exactly one jump in INPUT ($tool)" test "$(jump_count "$tool" INPUT vorn_input)" -eq 1
    check "crash: exactly one jump in OUTPUT ($tool)" test "$(jump_count "$tool" OUTPUT vorn_output)" -eq 1
  done
  check "crash: the restarted host still blocks TCP to port 8080" tcp_no_answer "$NS_PEER" "$H4" 8080 hello-8080

  local rule
  rule=$(chain_rules iptables vorn_input | grep -- '--dport 22' | grep -- '-j ACCEPT' | grep -- 'NEW' | head -n 1)
  if [[ -n $rule ]]; then
    read -ra words <<<"$rule"
    in_host iptables -D vorn_input "${words[@]}"
    check "periodic poll (no signal): a deleted rule is back within 5 s" \
      eventually 25 chain_has_rule iptables vorn_input "$rule"
    check "periodic poll: the repair is reported" \
      eventually 10 grep -q '"event":"FirewallIntegrityBroken"' "$EVENTS"
  else
    not_ok "crash: vorn_input holds the rule for TCP 22"
  fi

  check "crash: the restarted host exits cleanly on SIGTERM" stop_host TERM
  check "crash: the tables are as before the first start" same_tables_as "$BASELINE"
}

examples_checks() {
  local ini name
  shopt -s nullglob
  for ini in "$EXAMPLES"/*.ini; do
    name=examples/$(basename "$ini")
    if ! start_host "$ini"; then
      not_ok "$name: the host starts"
      continue
    fi
    if (( $(jump_count iptables INPUT vorn_input) == 1 && $(jump_count iptables OUTPUT vorn_output) == 1 )); then
      ok "$name: the host installs its chains"
    else
      not_ok "$name: the host installs its chains"
    fi
    check "$name: the host exits cleanly on SIGTERM" stop_host TERM
    check "$name: no trace is left" same_tables_as "$BASELINE"
  done
  shopt -u nullglob
}

main() {
  network_ready || return 0

  local settings=$DIR/test.ini
  write_settings "$settings" initial
  if ! start_host "$settings"; then
    not_ok "the host starts on the test settings"
    touch "$DIR/finished"
    return
  fi
  ok "the host starts on the test settings"
  check "the jump to vorn_input heads INPUT, above the foreign rule (IPv4)" first_rule_is iptables INPUT "-j vorn_input"
  check "the jump to vorn_input heads INPUT, above the foreign rule (IPv6)" first_rule_is ip6tables INPUT "-j vorn_input"
  check "the rule with doLogAttempts has its NFLOG rule" \
    eval 'chain_rules iptables vorn_input | grep -qF -- "--dport 22 -m conntrack --ctstate NEW -j NFLOG --nflog-prefix Allow --nflog-group 10001"'

  traffic_initial
  integrity_checks
  reload_checks "$settings"

  check "SIGTERM: the host exits cleanly" stop_host TERM
  check "SIGTERM: no message about objects still alive" eval '! grep -q "still alive" "$ERRS"'
  check "after exit the tables are as before the start (settings changes and repairs included)" \
    same_tables_as "$BASELINE"

  crash_checks "$settings"
  examples_checks
  touch "$DIR/finished"
}

main
