// SPDX-License-Identifier: GPL-2.0
/*
 * The isolation classifiers: attached to the ingress and egress tc hooks of
 * every physical interface while the host is isolated, they drop every packet
 * that no exclusion lets through. How a packet is judged, and the layout of
 * every map, is described in network_isolation_maps.h.
 */
#include <linux/bpf.h>
#include <linux/if_ether.h>
#include <linux/in.h>
#include <linux/pkt_cls.h>
#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "network_isolation_maps.h"

char LICENSE[] SEC("license") = "GPL";

/* Set by the loader from /proc/self/ns/net: the process tracking programs
 * follow only the sockets of the host's own network namespace (0: all). */
const volatile __u64 kHostNetnsInode = 0;

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, kIsolationMaxApplications);
  __type(key, struct IsolationAppKey);
  __type(value, struct IsolationAppValue);
} PolicyPacketExcludeForAppStep0 SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LPM_TRIE);
  __uint(max_entries, kIsolationMaxAddressEntries);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, struct IsolationAddressKey);
  __type(value, struct IsolationAddressValue);
} PolicyPacketExcludeDestIpStep1 SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LPM_TRIE);
  __uint(max_entries, kIsolationMaxAddressEntries);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, struct IsolationAddressKey);
  __type(value, struct IsolationAddressValue);
} PolicyPacketExcludeSrcIpStep3 SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_LPM_TRIE);
  __uint(max_entries, kIsolationMaxPortEntries);
  __uint(map_flags, BPF_F_NO_PREALLOC);
  __type(key, struct IsolationPortsKey);
  __type(value, struct IsolationPortsValue);
} PolicyPacketExcludePortsRangeStep2And4 SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, kIsolationMaxSockets);
  __type(key, __u64);
  __type(value, struct IsolationSocketValue);
} RuntimeSockets SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, kIsolationMaxSockets);
  __type(key, struct IsolationListenKey);
  __type(value, struct IsolationListenValue);
} RuntimeListenSocket SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, kIsolationMaxSockets);
  __type(key, __u64);
  __type(value, struct IsolationConnectRequestValue);
} RuntimeConnectRequestSocket SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_PERCPU_ARRAY);
  __uint(max_entries, 1);
  __type(key, __u32);
  __type(value, struct IsolationHeapValue);
} Heap SEC(".maps");

struct {
  __uint(type, BPF_MAP_TYPE_HASH);
  __uint(max_entries, kIsolationMaxConnections);
  __type(key, struct IsolationConnectionKey);
  __type(value, struct IsolationConnectionValue);
} TCPConntrack SEC(".maps");

#define ETH_P_8021Q_ 0x8100
#define ETH_P_8021AD_ 0x88A8
#define ETH_P_ARP_ 0x0806
#define ETH_P_IP_ 0x0800
#define ETH_P_IPV6_ 0x86DD

#define NEXTHDR_HOP 0
#define NEXTHDR_ROUTING 43
#define NEXTHDR_FRAGMENT 44
#define NEXTHDR_AUTH 51
#define NEXTHDR_DEST 60
#define PROTO_ICMPV6 58

/* Headers that end further in than this are not looked into (dropped). */
#define kMaxHeaderBytes 1024

enum parse_result { PARSE_OK, PARSE_PASS, PARSE_DROP, PARSE_TRUNCATED };

struct packet {
  __u8 local[16];
  __u8 remote[16];
  __u16 local_port_be;
  __u16 remote_port_be;
  __u8 protocol;
  __u8 has_ports; /* a transport header with ports was read */
  __u8 non_first_fragment;
  __u8 icmp_type;
  __u8 has_icmp_type;
  __u8 ipv4;
};

/* Headers are read through bpf_skb_load_bytes, which the kernel bounds by
 * the packet's length, so headers that lie beyond the linear part (as on
 * egress of large TCP sends) are read too, and walking a variable number of
 * variable-sized headers does not multiply the verifier's states as packet
 * pointers with variable offsets would. */
struct cursor {
  struct __sk_buff *skb;
  __u32 off;
};

/* Copies `len` bytes at the cursor to `to` and moves past them; 0 when the
 * packet ends first. */
static __always_inline int take(struct cursor *c, void *to, __u32 len) {
  if (c->off > kMaxHeaderBytes) return 0;
  if (bpf_skb_load_bytes(c->skb, c->off, to, len) != 0) return 0;
  c->off += len;
  return 1;
}

/* Moves past `len` bytes that are not read; 0 when the packet ends first. */
static __always_inline int skip(struct cursor *c, __u32 len) {
  c->off += len;
  return c->off <= c->skb->len;
}

static __always_inline void copy_ipv4_mapped(__u8 out[16], const __u8 *addr) {
  __builtin_memset(out, 0, 10);
  out[10] = 0xff;
  out[11] = 0xff;
  __builtin_memcpy(out + 12, addr, 4);
}

static __always_inline void set_ends(struct packet *p, const __u8 *src, const __u8 *dst, int len, int egress) {
  const __u8 *local = egress ? src : dst;
  const __u8 *remote = egress ? dst : src;
  if (len == 4) {
    copy_ipv4_mapped(p->local, local);
    copy_ipv4_mapped(p->remote, remote);
  } else {
    __builtin_memcpy(p->local, local, 16);
    __builtin_memcpy(p->remote, remote, 16);
  }
}

static __always_inline int parse_transport(struct cursor *c, struct packet *p, int egress) {
  if (p->non_first_fragment) return PARSE_OK;
  __u8 header[20];
  if (p->protocol == IPPROTO_TCP) {
    if (!take(c, header, 20)) return PARSE_TRUNCATED;
  } else if (p->protocol == IPPROTO_UDP) {
    if (!take(c, header, 8)) return PARSE_TRUNCATED;
  } else if (p->protocol == IPPROTO_ICMP || p->protocol == PROTO_ICMPV6) {
    if (!take(c, header, 4)) return PARSE_TRUNCATED;
    p->icmp_type = header[0];
    p->has_icmp_type = 1;
    return PARSE_OK;
  } else {
    return PARSE_OK;
  }
  __u16 source, destination;
  __builtin_memcpy(&source, header, 2);
  __builtin_memcpy(&destination, header + 2, 2);
  p->has_ports = 1;
  p->local_port_be = egress ? source : destination;
  p->remote_port_be = egress ? destination : source;
  return PARSE_OK;
}

static __always_inline int parse_ipv4(struct cursor *c, struct packet *p, int egress) {
  __u8 ip[20];
  if (!take(c, ip, 20)) return PARSE_TRUNCATED;
  __u32 ihl = (ip[0] & 0x0f) * 4;
  if ((ip[0] >> 4) != 4 || ihl < 20) return PARSE_DROP;
  /* Options are skipped whole: nothing in them changes the verdict. */
  if (!skip(c, ihl - 20)) return PARSE_TRUNCATED;
  p->protocol = ip[9];
  p->non_first_fragment = (((__u16)ip[6] << 8 | ip[7]) & 0x1fff) != 0;
  p->ipv4 = 1;
  set_ends(p, ip + 12, ip + 16, 4, egress);
  return parse_transport(c, p, egress);
}

static __always_inline int is_extension_header(__u8 next) {
  return next == NEXTHDR_HOP || next == NEXTHDR_ROUTING || next == NEXTHDR_DEST || next == NEXTHDR_FRAGMENT ||
         next == NEXTHDR_AUTH;
}

static __always_inline int parse_ipv6(struct cursor *c, struct packet *p, int egress) {
  __u8 ip[40];
  if (!take(c, ip, 40)) return PARSE_TRUNCATED;
  if ((ip[0] >> 4) != 6) return PARSE_DROP;
  set_ends(p, ip + 8, ip + 24, 16, egress);
  __u8 next = ip[6];
  for (int i = 0; i < kIsolationMaxExtensionHeaders && is_extension_header(next); i++) {
    __u8 ext[8];
    if (!take(c, ext, 8)) return PARSE_TRUNCATED;
    __u32 len;
    if (next == NEXTHDR_FRAGMENT) {
      len = 8;
      if ((((__u16)ext[2] << 8 | ext[3]) & 0xfff8) != 0) p->non_first_fragment = 1;
    } else if (next == NEXTHDR_AUTH) {
      len = ((__u32)ext[1] + 2) * 4;
    } else {
      len = ((__u32)ext[1] + 1) * 8;
    }
    if (!skip(c, len - 8)) return PARSE_TRUNCATED;
    next = ext[0];
  }
  if (is_extension_header(next)) return PARSE_DROP;
  p->protocol = next;
  return parse_transport(c, p, egress);
}

/* Devices without an Ethernet header put the network header at the start of
 * the packet. Reading the last linear byte relative to the network header
 * succeeds only then. */
static __always_inline int starts_with_network_header(struct __sk_buff *skb) {
  __u32 linear = (__u32)((long)skb->data_end - (long)skb->data);
  __u8 byte;
  return linear > 0 && bpf_skb_load_bytes_relative(skb, linear - 1, &byte, 1, BPF_HDR_START_NET) == 0;
}

static __always_inline int parse_packet(struct __sk_buff *skb, struct packet *p, int egress) {
  struct cursor c = {skb, 0};
  __u16 proto;
  if (starts_with_network_header(skb)) {
    proto = bpf_ntohs(skb->protocol);
  } else {
    struct ethhdr eth;
    if (!take(&c, &eth, sizeof(eth))) return PARSE_TRUNCATED;
    proto = bpf_ntohs(eth.h_proto);
    for (int i = 0; i < 2 && (proto == ETH_P_8021Q_ || proto == ETH_P_8021AD_); i++) {
      __u16 tag[2];
      if (!take(&c, tag, sizeof(tag))) return PARSE_TRUNCATED;
      proto = bpf_ntohs(tag[1]);
    }
  }
  if (proto == ETH_P_ARP_) return PARSE_PASS;
  if (proto == ETH_P_IP_) return parse_ipv4(&c, p, egress);
  if (proto == ETH_P_IPV6_) return parse_ipv6(&c, p, egress);
  return PARSE_DROP;
}

static __always_inline int port_pair(const struct packet *p, __u16 a, __u16 b) {
  __u16 local = bpf_ntohs(p->local_port_be), remote = bpf_ntohs(p->remote_port_be);
  return (local == a && remote == b) || (local == b && remote == a);
}

static __always_inline int always_passes(const struct packet *p) {
  if (p->protocol == PROTO_ICMPV6 && p->has_icmp_type) return p->icmp_type >= 133 && p->icmp_type <= 137;
  if (p->protocol == IPPROTO_UDP && p->has_ports) {
    return p->ipv4 ? port_pair(p, 68, 67) : port_pair(p, 546, 547);
  }
  return 0;
}

static __always_inline int application_passes(const struct packet *p) {
  if (p->protocol != IPPROTO_TCP || !p->has_ports) return 0;
  struct IsolationConnectionKey key = {};
  __builtin_memcpy(key.local, p->local, 16);
  __builtin_memcpy(key.remote, p->remote, 16);
  key.localPortBE = p->local_port_be;
  key.remotePortBE = p->remote_port_be;
  key.protocol = IPPROTO_TCP;
  if (bpf_map_lookup_elem(&TCPConntrack, &key)) return 1;
  struct IsolationListenKey listen = {.localPortBE = p->local_port_be, .protocol = IPPROTO_TCP};
  return bpf_map_lookup_elem(&RuntimeListenSocket, &listen) != 0;
}

static __always_inline __u8 port_bit(__u8 protocol) {
  return protocol == IPPROTO_TCP ? kIsolationPortTcp : protocol == IPPROTO_UDP ? kIsolationPortUdp : 0;
}

static __always_inline struct IsolationPortsValue *find_port(__u32 id, __u16 port_be) {
  struct IsolationPortsKey key = {.prefixlen = 64, .ipId = id, .portBE = bpf_htonl(bpf_ntohs(port_be))};
  return bpf_map_lookup_elem(&PolicyPacketExcludePortsRangeStep2And4, &key);
}

static __always_inline int ports_pass(__u32 id, const struct packet *p) {
  __u8 bit = port_bit(p->protocol);
  if (!bit || !p->has_ports) return 0;
  struct IsolationPortsValue *remote = find_port(id, p->remote_port_be);
  if (!remote) return 0;
  if (remote->passPorts & bit) return 1;
  if (!(remote->chainPorts & bit)) return 0;
  struct IsolationPortsValue *local = find_port(remote->localChainId, p->local_port_be);
  return local && (local->passPorts & bit);
}

/* Steps 1 and 2, or 3 and 4: the address's own protocols, then its ports. */
static __always_inline int address_passes(void *trie, const __u8 addr[16], const struct packet *p) {
  struct IsolationAddressKey key = {.prefixlen = 128};
  __builtin_memcpy(key.addr, addr, 16);
  struct IsolationAddressValue *entry = bpf_map_lookup_elem(trie, &key);
  if (!entry) return 0;
  if ((entry->protocols[(p->protocol >> 6) & 3] >> (p->protocol & 63)) & 1) return 1;
  return ports_pass(entry->ipId, p);
}

static __always_inline int excluded(const struct packet *p) {
  if (application_passes(p)) return 1;
  if (address_passes(&PolicyPacketExcludeDestIpStep1, p->remote, p)) return 1;
  return address_passes(&PolicyPacketExcludeSrcIpStep3, p->local, p);
}

static __always_inline int verdict(const struct packet *p) {
  /* Later fragments have no transport header, so never pass as these. */
  if (always_passes(p)) return TC_ACT_OK;
  return excluded(p) ? TC_ACT_OK : TC_ACT_SHOT;
}

static __always_inline int classify(struct __sk_buff *skb, int egress) {
  struct packet p = {};
  int parsed = parse_packet(skb, &p, egress);
  if (parsed == PARSE_PASS) return TC_ACT_OK;
  if (parsed != PARSE_OK) return TC_ACT_SHOT;
  return verdict(&p);
}

SEC("tc")
int TcIsolateIngress(struct __sk_buff *skb) { return classify(skb, 0); }

SEC("tc")
int TcIsolateEgress(struct __sk_buff *skb) { return classify(skb, 1); }
