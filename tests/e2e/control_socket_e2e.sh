#!/usr/bin/env bash
# End-to-end test of the administration agent's ports and of the host's
# control socket: `firewall-host run` with an [agent] section and
# `firewall-host ctl`, judged by the traffic that passes between two network
# namespaces, by the tables, and by the restore runs in the host's trace.
#
#   control_socket_e2e.sh FIREWALL_HOST
#
# Runs once per iptables backend (see e2e_lib.sh). Prints "ok - ..." /
# "not ok - ..." per check and "N passed, M failed" at the end; exits 0 only
# when nothing failed, 77 (skip) when not root.
set -euo pipefail

readonly SELF_DIR=$(dirname "$(realpath -e "$0")")
# shellcheck source=tests/e2e/e2e_lib.sh
source "$SELF_DIR/e2e_lib.sh"

e2e_suite "$0" "$@"

# The agent listens on 15000/tcp and 15001/udp, and uses 13000/tcp both
# ways; 15002 (TCP and UDP) and 8080 listen too but belong to nobody.
readonly AGENT_PORTS='15000/tcp/in; 15001/udp/in; 13000/tcp/inout'
readonly AGENT_PORTS_JSON='["15000/tcp/in","15001/udp/in","13000/tcp/inout"]'
# One incoming rule opens the port while the default blocks: the module lets
# its connections' replies out too.
readonly WEB_RULES='{"kind":"access","action":0,"proto":6,"localPorts":[8080,8080],"side":"incoming"}'

start_listeners() {
  start_tcp_listener "$NS_HOST" 15000 agent-15000
  # The agent also connects out from 13000: its listener shares the port.
  ip netns exec "$NS_HOST" socat "TCP6-LISTEN:13000,ipv6only=0,reuseaddr,reuseport,fork" "SYSTEM:echo agent-13000" \
    >/dev/null 2>&1 &
  start_tcp_listener "$NS_HOST" 15002 other-15002
  start_tcp_listener "$NS_HOST" 8080 web-8080
  start_udp_listener "$NS_HOST" 15001 "$DIR/udp-15001.log"
  start_udp_listener "$NS_HOST" 15002 "$DIR/udp-15002.log"
  start_tcp_listener "$NS_PEER" 8080 peer-8080
  start_tcp_listener "$NS_PEER" 8081 peer-8081
}

# tcp_answer_from NS ADDRESS PORT WORD LOCAL_PORT: as tcp_answer, from a
# fixed local port, bound with SO_REUSEPORT as the listener on it is.
tcp_answer_from() {
  local out
  out=$(ip netns exec "$1" timeout 5 socat -T 2 - \
    "TCP4:$2:$3,sourceport=$5,reuseaddr,reuseport,connect-timeout=1" </dev/null 2>/dev/null) || true
  [[ $out == *"$4"* ]]
}
tcp_no_answer_from() { ! tcp_answer_from "$@"; }

# Everything passes without the firewall: the blocks seen later are its.
precheck_network() {
  save_baseline
  local all=0 port
  for port in 15000 13000 15002 8080; do eventually 25 tcp_answer "$NS_PEER" "$H4" "$port" "-$port" || all=1; done
  eventually 25 tcp_answer "$NS_PEER" "$H6" 15000 agent-15000 || all=1
  eventually 25 tcp_answer_from "$NS_HOST" "$P4" 8081 peer-8081 13000 || all=1
  udp_reaches "$H4" 15002 "$DIR/udp-15002.log" || all=1
  check "without the firewall every probe passes" test "$all" -eq 0
  (( all == 0 ))
}

# Neighbour discovery is untracked and would fall to the default packet
# block, so its two messages are allowed for IPv6 to work at all. The
# agent's port 13000 may not open connections outwards by the
# administrator's rules: only the agent's own rule lets it. As a
# virtualisation-mode clone the host gets the exclusions shipped for it.
write_settings() { # FILE OPEN_PORTS
  cat >"$1" <<SETTINGS
[settings]
defaultIncomingAction = Block
defaultIncomingPacketAction = Block
openOstraPorts = $2

$(neighbour_discovery_rules)

[rule no-13000-out]
action = Block
direction = Outgoing
protocol = TCP
localPorts = 13000

[agent]
ports = $AGENT_PORTS

[lumra]
hostType = clone
SETTINGS
}

# ctl [--as-nobody] JSON: the reply goes to REPLY, the exit code to CTL_RC.
REPLY=
CTL_RC=0
ctl() {
  local prefix=()
  if [[ $1 == --as-nobody ]]; then
    prefix=(setpriv --reuid=nobody --regid=nogroup --clear-groups --inh-caps=-all)
    shift
  fi
  CTL_RC=0
  REPLY=$("${prefix[@]}" "$HOST_BIN" ctl --control "$CONTROL" "$1" 2>"$DIR/ctl.err") || CTL_RC=$?
}
# ctl_gives JSON CODE JQ_TEST: the request exits with CODE and its reply
# passes the jq test.
ctl_gives() {
  ctl "$1"
  if [[ $CTL_RC != "$2" ]] || ! jq -e "$3" >/dev/null 2>&1 <<<"$REPLY"; then
    note "request ${1:0:120}"
    note "exit $CTL_RC, reply ${REPLY:0:300} $(cat "$DIR/ctl.err")"
    return 1
  fi
}

restore_runs() { count_lines "$TRACE" '] Command:'; }

# Rules of the module that accept on a port, in either family's filter
# table (the administrator's own block on 13000 is not counted).
rules_naming_port() { # PORT
  { in_host iptables-save -t filter; in_host ip6tables-save -t filter; } |
    grep -c -- "-A vorn_.*port $1 .*-j ACCEPT" || true
}

agent_ports_open_checks() {
  check "IPv4: the agent's TCP port 15000 connects" tcp_answer "$NS_PEER" "$H4" 15000 agent-15000
  check "IPv6: the agent's TCP port 15000 connects" tcp_answer "$NS_PEER" "$H6" 15000 agent-15000
  check "IPv4: the agent's UDP port 15001 receives" udp_reaches "$H4" 15001 "$DIR/udp-15001.log"
  check "IPv4: TCP port 15002 (listening, nobody's) stays blocked" tcp_no_answer "$NS_PEER" "$H4" 15002 other-15002
  check "IPv4: UDP port 15002 (listening, nobody's) stays blocked" udp_blocked "$H4" 15002 "$DIR/udp-15002.log"
  check "IPv4: TCP port 8080 (listening, nobody's) stays blocked" tcp_no_answer "$NS_PEER" "$H4" 8080 web-8080
  check "INOUT 13000: a connection comes in" tcp_answer "$NS_PEER" "$H4" 13000 agent-13000
  check "INOUT 13000: a connection goes out from it, past the administrator's block" \
    tcp_answer_from "$NS_HOST" "$P4" 8080 peer-8080 13000
}

agent_ports_closed_checks() {
  check "openOstraPorts off: TCP 15000 is blocked" tcp_no_answer "$NS_PEER" "$H4" 15000 agent-15000
  check "openOstraPorts off: UDP 15001 is blocked" udp_blocked "$H4" 15001 "$DIR/udp-15001.log"
  check "openOstraPorts off: INOUT 13000 no longer takes connections" \
    tcp_no_answer "$NS_PEER" "$H4" 13000 agent-13000
  check "openOstraPorts off: INOUT 13000 no longer opens connections" \
    tcp_no_answer_from "$NS_HOST" "$P4" 8081 peer-8081 13000
  local port
  for port in 15000 15001 13000; do
    check "openOstraPorts off: no rule of the module names port $port" test "$(rules_naming_port "$port")" -eq 0
  done
}

reload_checks() { # SETTINGS
  local before
  before=$(count_lines "$ERRS" "settings reloaded")
  write_settings "$1" false
  kill -HUP "$HOST_PID"
  check "SIGHUP with openOstraPorts = false is applied" wait_for_stderr "settings reloaded" $((before + 1))
  agent_ports_closed_checks

  write_settings "$1" true
  kill -HUP "$HOST_PID"
  check "SIGHUP with openOstraPorts = true is applied" wait_for_stderr "settings reloaded" $((before + 2))
  check "openOstraPorts on again: TCP 15000 connects" tcp_answer "$NS_PEER" "$H4" 15000 agent-15000

  local saved=$DIR/before-bad-agent.save
  save_tables "$saved"
  sed -i 's|^ports = .*|ports = 15000/tcp/in; 15003/sctp/in|' "$1"
  kill -HUP "$HOST_PID"
  check "SIGHUP with a malformed [agent] entry: the error names it" \
    wait_for_stderr "[agent] ports: '15003/sctp/in': protocol 'sctp' is not one of tcp, udp; the rules in force stay" 1
  check "after the malformed [agent] entry the tables are unchanged" same_tables_as "$saved"
  write_settings "$1" true
}

agent_ports_ctl_checks() {
  local runs
  runs=$(restore_runs)
  check "ctl agent-ports with the list in force: ok" \
    ctl_gives "{\"cmd\":\"agent-ports\",\"ports\":$AGENT_PORTS_JSON}" 0 '.ok and (.agentPorts | length == 3)'
  check "the same port list again runs no restore" test "$(restore_runs)" -eq "$runs"
  check "ctl agent-ports with one port: ok" \
    ctl_gives '{"cmd":"agent-ports","ports":["15000/tcp/in"]}' 0 '.agentPorts == ["15000/tcp/in"]'
  check "a changed port list runs the restore tool" test "$(restore_runs)" -gt "$runs"
  runs=$(restore_runs)
  check "ctl agent-ports with that one port again: ok" ctl_gives '{"cmd":"agent-ports","ports":["15000/tcp/in"]}' 0 '.ok'
  check "that port list set twice runs no restore the second time" test "$(restore_runs)" -eq "$runs"
  check "INOUT 13000 left the list: its rules are gone from both sides" test "$(rules_naming_port 13000)" -eq 0
  check "ctl agent-ports back to the settings' list: ok" \
    ctl_gives "{\"cmd\":\"agent-ports\",\"ports\":$AGENT_PORTS_JSON}" 0 '.ok'
}

dynamic_rule_checks() {
  check "ctl add-rules under the tag web: ok" \
    ctl_gives "{\"cmd\":\"add-rules\",\"tag\":\"web\",\"rules\":[$WEB_RULES]}" 0 '.ok and .added == 1'
  check "IPv4: TCP 8080 connects once the rule is added" tcp_answer "$NS_PEER" "$H4" 8080 web-8080
  check "IPv6: TCP 8080 connects once the rule is added" tcp_answer "$NS_PEER" "$H6" 8080 web-8080
  check "status shows the task, the tags with their rules, the agent's ports and the event count" \
    ctl_gives '{"cmd":"status"}' 0 \
    "(.task == \"started\") and .enforcing and .polling and (.tags.web == [$WEB_RULES])
     and ([.tags.ostra[].localPorts[0]] | unique == [13000,15000,15001])
     and (.agentPorts == [\"13000/tcp/inout\",\"15000/tcp/in\",\"15001/udp/in\"]) and (.integrityEvents == 0)"
  check "ctl remove-rules: ok, the rule removed" \
    ctl_gives "{\"cmd\":\"remove-rules\",\"rules\":[$WEB_RULES]}" 0 '.ok and .removed == 1'
  check "IPv4: TCP 8080 is blocked again once the rule is removed" tcp_no_answer "$NS_PEER" "$H4" 8080 web-8080
  check "status no longer shows the tag web" ctl_gives '{"cmd":"status"}' 0 '.tags | has("web") | not'

  local saved=$DIR/before-refused.save
  save_tables "$saved"
  check "ctl add-rules with a rule the module refuses: exit 1, code and reason" \
    ctl_gives '{"cmd":"add-rules","tag":"web","rules":[{"kind":"access","action":0,"localPorts":[22,22]}]}' 1 \
    '(.ok | not) and .result == "0x80000046" and (.error | test("rules\\[0\\] refused, ports need protocol"))'
  check "the refused rule changed nothing" same_tables_as "$saved"
}

# Requests that must change nothing; the tables and the status are compared.
bad_request_checks() {
  local saved=$DIR/before-bad.save status_before
  save_tables "$saved"
  ctl '{"cmd":"status"}'
  status_before=$REPLY

  check "a malformed request: exit 1 and an error" \
    ctl_gives '{"cmd":"add-rules",' 1 '(.ok | not) and (.error | startswith("not JSON"))'
  check "an unknown request: exit 1 and an error naming it" \
    ctl_gives '{"cmd":"flush"}' 1 '.error | startswith("cmd: unknown command '"'"'flush'"'"'")'
  check "a rule with an unknown key: exit 1 and an error naming it" \
    ctl_gives "{\"cmd\":\"add-rules\",\"tag\":\"web\",\"rules\":[{\"kind\":\"access\",\"action\":0,\"colour\":1}]}" 1 \
    '.error == "rules[0].colour: unknown key"'
  local long
  long="{\"cmd\":\"add-rules\",\"tag\":\"$(head -c 70000 /dev/zero | tr '\0' x)\",\"rules\":[$WEB_RULES]}"
  check "an oversized request: exit 1 and an error" \
    ctl_gives "$long" 1 '.error | startswith("request line longer than 65536 bytes")'

  # A client that leaves halfway through a line.
  printf '{"cmd":"add-rules","tag":"web","rules":[%s' "$WEB_RULES" |
    timeout 5 socat -t 1 - "UNIX-CONNECT:$CONTROL" >/dev/null 2>&1 || true
  ctl '{"cmd":"status"}'
  check "after all that the host is up and its status unchanged" test "$REPLY" == "$status_before"
  check "after all that the tables are unchanged" same_tables_as "$saved"
  check "IPv4: TCP 8080 is still blocked" tcp_no_answer "$NS_PEER" "$H4" 8080 web-8080
}

permission_checks() {
  local dir
  dir=$(dirname "$CONTROL")
  check "the socket is 0600 and its directory 0700, both root's" \
    test "$(stat -c '%a %u' "$CONTROL") $(stat -c '%a %u' "$dir")" == "600 0 700 0"
  ctl --as-nobody '{"cmd":"status"}'
  check "a non-root client cannot even connect: exit 2" test "$CTL_RC" -eq 2
  # With the file modes opened up, the peer's user id is the last wall. The
  # suite's directory is root's alone, so this opens nothing to anyone else.
  chmod 0711 "$dir" "$DIR" "$(dirname "$DIR")"
  chmod 0666 "$CONTROL"
  ctl --as-nobody "{\"cmd\":\"add-rules\",\"tag\":\"web\",\"rules\":[$WEB_RULES]}"
  check "a non-root peer that reaches the socket is refused: exit 1" test "$CTL_RC" -eq 1
  check "the refusal says only root may use the socket" \
    eval 'jq -e ".error | startswith(\"only root may use the control socket\")" >/dev/null <<<"$REPLY"'
  check "the non-root peer's request changed nothing" tcp_no_answer "$NS_PEER" "$H4" 8080 web-8080
  chmod 0700 "$dir" "$(dirname "$DIR")"
  chmod 0600 "$CONTROL"
}

second_host_refused() { # SETTINGS
  local rc=0
  ip netns exec "$NS_HOST" timeout 10 "$HOST_BIN" run "$1" --control "$CONTROL" --state-dir "$STATE_DIR" >/dev/null 2>"$DIR/second.err" || rc=$?
  grep -qF "$CONTROL: another host is already listening there" "$DIR/second.err" && (( rc == 2 )) && return 0
  note "exit $rc: $(cat "$DIR/second.err")"
  return 1
}

main() {
  network_ready || return 0

  local settings=$DIR/agent.ini
  write_settings "$settings" true
  if ! start_host "$settings"; then
    not_ok "the host starts with the agent's ports open"
    touch "$DIR/finished"
    return
  fi
  ok "the host starts with the agent's ports open"
  check "the [lumra] host type's exclusions come under the tag lumra" \
    eventually 25 ctl_gives '{"cmd":"status"}' 0 '(.tags.lumra | length > 0) and all(.tags.lumra[]; .kind == "bypass")'
  agent_ports_open_checks
  reload_checks "$settings"
  agent_ports_ctl_checks
  dynamic_rule_checks
  bad_request_checks
  permission_checks

  check "a second host on the same control socket refuses to start" second_host_refused "$settings"
  check "SIGTERM: the host exits cleanly" stop_host TERM
  check "the control socket is gone with the host" test ! -e "$CONTROL"
  ctl '{"cmd":"status"}'
  check "ctl without a host: exit 2" test "$CTL_RC" -eq 2
  check "after exit the tables are as before the start" same_tables_as "$BASELINE"
  touch "$DIR/finished"
}

main
