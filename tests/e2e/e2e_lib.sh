# Sourced by the end-to-end tests of firewall-host. Each test script runs
# its whole suite once per iptables backend (legacy, nft), each time in a
# private mount namespace in which the iptables tool names run that backend,
# between two network namespaces joined by a veth pair. Nothing runs in the
# machine's own network namespace, and the host's control socket lives in
# the suite's scratch directory.
#
# A test script calls `run_all_backends "$0" "$@"` when FWE2E_INNER is not
# set; the inner run gets BACKEND HOST_BIN DIR and the script's own further
# arguments, sources this file again and calls `e2e_inner_setup`.

readonly SKIP_CODE=77
readonly IPTABLES_NAMES=(iptables iptables-save iptables-restore ip6tables ip6tables-save ip6tables-restore)

die() { echo "$(basename "$0"): $*" >&2; exit 1; }

# --- outer part: one private mount namespace per backend ----------------------

outer_cleanup() {
  local rc=$?
  trap - EXIT INT TERM
  if [[ -n ${INNER_PID:-} ]]; then
    kill -TERM "$INNER_PID" 2>/dev/null || true
    wait "$INNER_PID" 2>/dev/null || true
  fi
  rm -rf "${WORK:?}"
  exit "$rc"
}

# run_all_backends SCRIPT FIREWALL_HOST [ARGS...]
run_all_backends() {
  local self=$1; shift
  (( $# >= 1 )) || die "usage: $self FIREWALL_HOST [ARGS...]"
  if [[ $(id -u) -ne 0 ]]; then
    echo "$(basename "$self"): SKIP: needs root (network namespaces, iptables)"
    exit "$SKIP_CODE"
  fi
  local host_bin
  host_bin=$(realpath -e "$1") || die "no firewall-host at '$1'"
  [[ -x $host_bin ]] || die "$host_bin is not executable"
  shift

  local missing=() tool
  for tool in ip unshare mount socat nc ping timeout realpath setpriv jq iptables ip6tables; do
    command -v "$tool" >/dev/null 2>&1 || missing+=("$tool")
  done
  for tool in /usr/sbin/xtables-legacy-multi /usr/sbin/xtables-nft-multi; do
    [[ -x $tool ]] || missing+=("$tool")
  done
  (( ${#missing[@]} == 0 )) || die "missing tools: ${missing[*]} (run scripts/install-deps.sh)"
  # The probes rely on its -w and on it reading until the listener closes.
  nc -h 2>&1 | grep -q OpenBSD || die "nc is not the OpenBSD netcat (package netcat-openbsd)"

  self=$(realpath -e "$self")
  WORK=$(mktemp -d /tmp/fwe2e.XXXXXX)
  INNER_PID=
  # The inner runs clean their own namespaces; here only the child and the
  # scratch directory are left to tidy.
  trap outer_cleanup EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM

  local backend rc work=$WORK
  for backend in legacy nft; do
    echo "# ---- backend: $backend ----"
    mkdir -p "$work/$backend"
    rc=0
    FWE2E_INNER=1 unshare --mount --propagation private -- \
      bash "$self" "$backend" "$host_bin" "$work/$backend" "$@" &
    INNER_PID=$!
    wait "$INNER_PID" || rc=$?
    INNER_PID=
    if [[ ! -f $work/$backend/finished ]]; then
      echo "not ok - [$backend] suite ended early (exit $rc)" | tee -a "$work/$backend/results"
    fi
  done

  local passed failed
  passed=$(cat "$work"/*/results 2>/dev/null | grep -c '^ok ' || true)
  failed=$(cat "$work"/*/results 2>/dev/null | grep -c '^not ok ' || true)
  echo "$passed passed, $failed failed"
  (( failed == 0 && passed > 0 ))
}

# Where every suite starts. From outside (SELF FIREWALL_HOST [ARGS...]): runs
# SELF once per backend and exits with the outcome. Inside one backend's run:
# sets that run up and returns.
e2e_suite() { # SELF ARGS...
  local self=$1; shift
  if [[ ${FWE2E_INNER:-} != 1 ]]; then
    run_all_backends "$self" "$@"
    exit $?
  fi
  e2e_inner_setup "$@"
}

# Builds the namespaces and starts the suite's listeners (its
# start_listeners); false, with the suite marked finished, when the network
# does not work, since every other check would then mean nothing.
network_ready() {
  if ! setup_network; then
    touch "$DIR/finished"
    return 1
  fi
  start_listeners
  if ! precheck_network; then
    note "the namespaces do not talk to each other; the other checks would mean nothing"
    touch "$DIR/finished"
    return 1
  fi
}

# The two ICMPv6 messages that IPv6 needs to work at all once unmatched
# incoming packets are blocked, as settings-file rule sections.
neighbour_discovery_rules() {
  cat <<'RULES'
[rule nd-solicitation]
action = Allow
direction = IncomingPacket
protocol = ICMPv6
icmpType = 135

[rule nd-advertisement]
action = Allow
direction = IncomingPacket
protocol = ICMPv6
icmpType = 136
RULES
}

# --- inner part: runs in a private mount namespace ------------------------------

# Reads BACKEND HOST_BIN DIR from the arguments; the caller shifts past them.
e2e_inner_setup() {
  readonly BACKEND=$1 HOST_BIN=$2 DIR=$3
  readonly RESULTS=$DIR/results
  readonly NS_HOST=fwe2e-$$-host NS_PEER=fwe2e-$$-peer
  readonly H4=10.77.0.1 P4=10.77.0.2 H6=fd77::1 P6=fd77::2
  # In the suite's own directory: the machine's /run stays untouched.
  readonly CONTROL=$DIR/control/control.sock
  # Likewise the machine's /var/lib.
  readonly STATE_DIR=$DIR/state
  # shellcheck source=scripts/netns-pair.sh
  source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/netns-pair.sh"
  HOST_PID=
  HOST_RUN=0
  # Namespaces a suite adds beyond the pair; cleaned up with the pair.
  EXTRA_NAMESPACES=()
  BASELINE=$DIR/baseline.save
  mkdir -p "$DIR"
  : >"$RESULTS"
  trap cleanup EXIT
  trap 'exit 130' INT
  trap 'exit 143' TERM
}

ok() { echo "ok - [$BACKEND] $*" | tee -a "$RESULTS"; }
not_ok() { echo "not ok - [$BACKEND] $*" | tee -a "$RESULTS"; }
# check DESCRIPTION COMMAND...: one result line from the command's status.
check() {
  local what=$1; shift
  if "$@"; then ok "$what"; else not_ok "$what"; fi
}
note() { echo "# $*"; }

in_host() { ip netns exec "$NS_HOST" "$@"; }
in_peer() { ip netns exec "$NS_PEER" "$@"; }

cleanup() {
  local rc=$?
  trap - EXIT INT TERM
  # Their deaths below are expected; the shell need not announce them.
  disown -a 2>/dev/null || true
  [[ -n $HOST_PID ]] && { kill -KILL "$HOST_PID" 2>/dev/null || true; }
  local ns pid
  for ns in "$NS_HOST" "$NS_PEER" "${EXTRA_NAMESPACES[@]}"; do
    # Only this suite's listeners and hosts live in these namespaces.
    for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -KILL "$pid" 2>/dev/null || true; done
    ip netns del "$ns" 2>/dev/null || true
  done
  exit "$rc"
}

# The tool names resolve through the alternatives directory; a private tmpfs
# over it, holding the same links with the six iptables names pointed at one
# backend, switches the backend for this mount namespace only. Binding over a
# single name would not do: it would follow the link to the multi-call binary
# that both backends share.
switch_backend() {
  local multi=/usr/sbin/xtables-$BACKEND-multi name copy
  for name in "${IPTABLES_NAMES[@]}"; do
    [[ $(readlink "/usr/sbin/$name") == "/etc/alternatives/$name" ]] ||
      { echo "/usr/sbin/$name does not resolve through /etc/alternatives" >&2; return 1; }
  done
  copy=$(mktemp -d "$DIR/alternatives.XXXXXX")
  cp -a /etc/alternatives/. "$copy/"
  mount -t tmpfs -o mode=0755,nosuid,nodev tmpfs /etc/alternatives
  cp -a "$copy/." /etc/alternatives/
  for name in "${IPTABLES_NAMES[@]}"; do ln -sfn "$multi" "/etc/alternatives/$name"; done
}

# The backend, the namespaces and their veth pair; false (with a result
# line) when the backend cannot be switched to.
setup_network() {
  switch_backend
  if ! iptables -V | grep -q "($( [[ $BACKEND == nft ]] && echo nf_tables || echo legacy ))"; then
    not_ok "iptables runs the $BACKEND backend: $(iptables -V)"
    return 1
  fi
  private_netns_dir
  setup_namespace_pair
}

# Listeners that answer with a word of their own, on both families (a v6
# socket that also takes v4-mapped peers), so a reply proves which one
# answered.
start_tcp_listener() { # NS PORT WORD
  ip netns exec "$1" socat "TCP6-LISTEN:$2,ipv6only=0,reuseaddr,fork" "SYSTEM:echo $3" >/dev/null 2>&1 &
}
start_udp_listener() { # NS PORT LOGFILE
  : >"$3"
  ip netns exec "$1" socat -u "UDP6-RECV:$2,ipv6only=0" "OPEN:$3,creat,append" >/dev/null 2>&1 &
}

# tcp_answer NS ADDRESS PORT WORD: a connection is made and the listener's
# word comes back.
tcp_answer() {
  local out
  out=$(ip netns exec "$1" timeout 5 nc -w 1 "$2" "$3" </dev/null 2>/dev/null) || true
  [[ $out == *"$4"* ]]
}
tcp_no_answer() { ! tcp_answer "$@"; }

ping_ok() { # NS ADDRESS
  local family=-4
  [[ $2 == *:* ]] && family=-6
  ip netns exec "$1" ping "$family" -n -q -c 1 -W 1 "$2" >/dev/null 2>&1
}
ping_fails() { ! ping_ok "$@"; }

# Retries while the listeners and addresses come up.
eventually() { # TRIES COMMAND...
  local tries=$1; shift
  local i
  for ((i = 0; i < tries; i++)); do
    "$@" && return 0
    sleep 0.2
  done
  return 1
}

UDP_SEQ=0
udp_send_from() { # NS ADDRESS PORT TOKEN
  local target="UDP4-SENDTO:$2:$3"
  [[ $2 == *:* ]] && target="UDP6-SENDTO:[$2]:$3"
  ip netns exec "$1" socat -u STDIN "$target" <<<"$4" 2>/dev/null || true
}
udp_send() { udp_send_from "$NS_PEER" "$@"; }
file_has() { grep -qxF "$2" "$1"; }
wait_file_has() { # FILE LINE TRIES
  eventually "$3" file_has "$1" "$2"
}

# udp_reaches ADDRESS PORT LOGFILE / udp_blocked ADDRESS PORT LOGFILE: a
# datagram sent now arrives in the listener's log, or not within a second.
udp_reaches() {
  UDP_SEQ=$((UDP_SEQ + 1))
  udp_send "$1" "$2" "datagram-$UDP_SEQ"
  wait_file_has "$3" "datagram-$UDP_SEQ" 15
}
udp_blocked() {
  UDP_SEQ=$((UDP_SEQ + 1))
  udp_send "$1" "$2" "datagram-$UDP_SEQ"
  sleep 1
  ! file_has "$3" "datagram-$UDP_SEQ"
}
# udp_reaches_from NS ADDRESS PORT LOGFILE: the same, sent from NS.
udp_reaches_from() {
  UDP_SEQ=$((UDP_SEQ + 1))
  udp_send_from "$1" "$2" "$3" "datagram-$UDP_SEQ"
  wait_file_has "$4" "datagram-$UDP_SEQ" 15
}

# Saves of both families with what differs between two identical states
# (comments with dates, counters) taken out.
save_tables() { # FILE
  {
    echo "## IPv4"
    in_host iptables-save
    echo "## IPv6"
    in_host ip6tables-save
  } | grep -v '^# ' | sed -E 's/\[[0-9]+:[0-9]+\]/[0:0]/' >"$1"
}
same_tables_as() { # FILE
  local now=$DIR/now.save
  save_tables "$now"
  if cmp -s "$1" "$now"; then return 0; fi
  diff -u "$1" "$now" | sed 's/^/#   /'
  return 1
}

# Installing any rule makes the filter table, and removing the rules does
# not unmake it; the table must exist before the baseline, or the check
# would blame the host for it. With the legacy backend listing creates it
# (its tables are made in a namespace on first use); with nft listing does
# not, but the foreign rule added next does. Documentation addresses: rules
# naming them never match the test traffic.
save_baseline() {
  in_host iptables -S >/dev/null
  in_host ip6tables -S >/dev/null
  in_host iptables -A INPUT -s 192.0.2.1/32 -j DROP
  in_host ip6tables -A INPUT -s 2001:db8::1/128 -j DROP
  save_tables "$BASELINE"
}

# --- the host --------------------------------------------------------------------

# start_host SETTINGS [ARGS...]: starts `firewall-host run` in the host
# namespace and waits for the task to start. Its events, messages and trace
# go to files numbered per run.
start_host() {
  local settings=$1; shift
  HOST_RUN=$((HOST_RUN + 1))
  EVENTS=$DIR/events.$HOST_RUN
  ERRS=$DIR/stderr.$HOST_RUN
  TRACE=$DIR/trace.$HOST_RUN
  : >"$EVENTS"
  : >"$ERRS"
  # `ip netns exec` replaces itself with the command, so $! is the host.
  ip netns exec "$NS_HOST" "$HOST_BIN" run "$settings" --trace-level 800 --trace-file "$TRACE" \
    --control "$CONTROL" --state-dir "$STATE_DIR" "$@" >"$EVENTS" 2>"$ERRS" &
  HOST_PID=$!
  local i
  for ((i = 0; i < 100; i++)); do
    grep -q 'control socket ' "$ERRS" && return 0
    kill -0 "$HOST_PID" 2>/dev/null || break
    sleep 0.1
  done
  sed 's/^/#   stderr: /' "$ERRS"
  return 1
}

# stop_host SIGNAL: true when the host ends within 10 s with status 0.
stop_host() {
  local rc=0 i
  kill "-$1" "$HOST_PID" 2>/dev/null || true
  for ((i = 0; i < 100; i++)); do
    kill -0 "$HOST_PID" 2>/dev/null || break
    sleep 0.1
  done
  if kill -0 "$HOST_PID" 2>/dev/null; then
    note "the host did not stop within 10 s; killing it"
    kill -KILL "$HOST_PID" 2>/dev/null || true
    rc=1
  fi
  wait "$HOST_PID" 2>/dev/null || rc=$?
  HOST_PID=
  return "$rc"
}

count_lines() { # FILE PATTERN (fixed string)
  grep -cF -- "$2" "$1" 2>/dev/null || true
}

# Polls started by the timer, as counted from the trace.
polls_started() { count_lines "$TRACE" '] RunPoll() '; }

# poll_now: makes the host run an integrity poll that starts after this call
# and returns once that poll, with any event it publishes, is over. The timer
# runs one job at a time, so the start of a second poll marks the end of the
# first.
poll_now() {
  local before target i
  before=$(polls_started)
  for target in $((before + 1)) $((before + 2)); do
    kill -USR1 "$HOST_PID"
    for ((i = 0; i < 100; i++)); do
      (( $(polls_started) >= target )) && break
      sleep 0.05
    done
    (( $(polls_started) >= target )) || { note "no poll started after SIGUSR1"; return 1; }
  done
}

# wait_for_stderr PATTERN COUNT: until the host has written COUNT lines with
# PATTERN (a fixed string) on standard error.
wait_for_stderr() {
  local i
  for ((i = 0; i < 100; i++)); do
    (( $(count_lines "$ERRS" "$1") >= $2 )) && return 0
    sleep 0.1
  done
  return 1
}

# The rule lines of a chain as `iptables -S` prints them, without "-A CHAIN ".
chain_rules() { # TOOL CHAIN
  in_host "$1" -S "$2" 2>/dev/null | sed -n "s/^-A $2 //p"
}
chain_has_rule() { # TOOL CHAIN RULE
  chain_rules "$1" "$2" | grep -qxF -- "$3"
}
first_rule_is() { # TOOL CHAIN RULE
  [[ $(chain_rules "$1" "$2" | head -n 1) == "$3" ]]
}
jump_count() { # TOOL BUILTIN TARGET
  chain_rules "$1" "$2" | grep -cxF -- "-j $3" || true
}
