# Sourced by the demo and the end-to-end tests: two network namespaces,
# "host" and "peer", joined by a veth pair with IPv4 and IPv6 addresses.
# The caller sets NS_HOST, NS_PEER, H4, P4, H6, P6 and runs in a private
# mount namespace.

# Namespace names live on a private tmpfs, so an interrupted run cannot
# leave entries behind in the machine's /run/netns. Where that directory
# does not exist, a private /run holds it, rather than creating it on the
# machine.
private_netns_dir() {
  if [[ ! -d /run/netns ]]; then
    mount -t tmpfs -o mode=0755,nosuid,nodev tmpfs /run
    mkdir /run/netns
  fi
  mount -t tmpfs -o mode=0755,nosuid,nodev,noexec tmpfs /run/netns
}

setup_namespace_pair() {
  ip netns add "$NS_HOST"
  ip netns add "$NS_PEER"
  # Created inside the host namespace with its other end sent straight to the
  # peer, so the pair never appears among the machine's own interfaces.
  ip -n "$NS_HOST" link add veth-h type veth peer name veth-p netns "$NS_PEER"
  ip -n "$NS_HOST" addr add "$H4/24" dev veth-h
  ip -n "$NS_PEER" addr add "$P4/24" dev veth-p
  ip -n "$NS_HOST" -6 addr add "$H6/64" dev veth-h nodad
  ip -n "$NS_PEER" -6 addr add "$P6/64" dev veth-p nodad
  local ns
  for ns in "$NS_HOST" "$NS_PEER"; do ip -n "$ns" link set lo up; done
  ip -n "$NS_HOST" link set veth-h up
  ip -n "$NS_PEER" link set veth-p up
}
