/*
 * The keys and values of the isolation classifier's maps, shared by the eBPF
 * program (C, compiled with clang -target bpf) and by user space (C++). Both
 * sides include this one header, so a layout cannot drift between them; the
 * size and offset checks at the end fail the build of either side if it does.
 *
 * Integers are in host order unless their name ends in BE (network order).
 *
 * How a packet is judged
 * ----------------------
 * Each packet is seen from the host: on egress its source is the local end and
 * its destination the remote end, on ingress the other way round. Every map
 * is keyed by local and remote ends, never by source and destination, so the
 * same entries pass both directions of a connection: the reply to an allowed
 * outgoing connection passes ingress, and the answer of an allowed incoming
 * one passes egress.
 *
 * Always passed, before any map is read: ARP; IPv6 neighbour discovery
 * (ICMPv6 types 133 to 137); DHCP (IPv4 UDP ports 68 and 67 one each side,
 * IPv6 UDP 546 and 547). Anything else that is neither IPv4 nor IPv6 is
 * dropped. Loopback is never classified (the classifiers sit on physical
 * interfaces only). Name resolution is an ordinary exclusion of the resolvers'
 * addresses that user space adds.
 *
 * Then the steps, in order; the first that matches passes the packet, and a
 * packet that none passes is dropped:
 *  0. application: a TCP connection of an excluded executable, as the process
 *     tracking programs recorded it in TCPConntrack (by its four ends), or a
 *     TCP packet to a local port that an excluded executable listens on
 *     (RuntimeListenSocket);
 *  1. remote address in PolicyPacketExcludeDestIpStep1: its entry passes the
 *     protocols whose bit it sets outright;
 *  2. ports of that entry's id in PolicyPacketExcludePortsRangeStep2And4
 *     (TCP and UDP only): the remote port, then, if that entry asks for it,
 *     the local port under the entry's chain id;
 *  3. local address in PolicyPacketExcludeSrcIpStep3, as step 1;
 *  4. ports of that entry's id, as step 2.
 * An exclusion without a remote address belongs in steps 3 and 4 under the
 * local prefix ::/0, so that it still applies to addresses that have entries
 * of their own in step 1.
 *
 * Fragments: a non-first fragment (IPv4 offset, or IPv6 fragment header
 * offset, not zero) carries no transport header, so it is judged by address
 * only: steps 1 and 3 with their protocol bits; steps 0, 2 and 4 and the
 * always-passed kinds do not apply. A first fragment is judged like an
 * unfragmented packet.
 *
 * Headers: IPv4 options (IHL above 5) are skipped by the IHL; IPv6 hop-by-hop,
 * routing, destination options, fragment and authentication headers are
 * walked, at most kIsolationMaxExtensionHeaders of them (more are dropped).
 * Up to two VLAN tags are skipped. Devices without an Ethernet header (where
 * the network header starts the packet) are parsed from skb->protocol.
 *
 * Truncation: a packet that ends inside a header it needs is dropped: the
 * Ethernet header (and VLAN tags), the IPv4 header with its options, the IPv6
 * header and each extension header, the fixed TCP header (20 bytes), the UDP
 * header (8), the ICMP and ICMPv6 type, code and checksum (4).
 */
#ifndef FIREWALL_EBPF_NETWORK_ISOLATION_MAPS_H
#define FIREWALL_EBPF_NETWORK_ISOLATION_MAPS_H

#include <linux/types.h>

#ifdef __cplusplus
#include <cstddef>
#define ISOLATION_STATIC_ASSERT(cond, text) static_assert(cond, text)
namespace qel::firewall::ebpf {
#else
#include <stddef.h>
#define ISOLATION_STATIC_ASSERT(cond, text) _Static_assert(cond, text)
#endif

/* Map sizes. The benchmark target is 10 000 exclusions; leave room above it. */
#define kIsolationMaxAddressEntries 65536
#define kIsolationMaxPortEntries 262144
#define kIsolationMaxApplications 4096
#define kIsolationMaxConnections 65536
#define kIsolationMaxSockets 65536
#define kIsolationMaxExtensionHeaders 8

/*
 * Addresses are kept as IPv6 addresses; an IPv4 address a.b.c.d is the
 * IPv4-mapped ::ffff:a.b.c.d, so one trie serves both families and an IPv4
 * prefix /n is the prefix length 96 + n.
 */
#define kIsolationIpv4MappedPrefixBits 96

/*
 * PolicyPacketExcludeDestIpStep1 (remote ends) and
 * PolicyPacketExcludeSrcIpStep3 (local ends): LPM tries.
 */
struct IsolationAddressKey {
  __u32 prefixlen; /* significant bits of addr */
  __u8 addr[16];   /* network order */
};

/* Transport protocols that have ports, as bits of the ports maps' values. */
#define kIsolationPortTcp 0x1
#define kIsolationPortUdp 0x2

struct IsolationAddressValue {
  __u32 ipId; /* the ports map's ipId for this address's port exclusions */
  __u32 refCount; /* exclusions that use this entry (kept by user space) */
  /* IP protocol numbers passed without looking at ports: bit p of
   * protocols[p / 64] is protocol p. All bits set: the whole address. */
  __u64 protocols[4];
};

/*
 * PolicyPacketExcludePortsRangeStep2And4: an LPM trie. The prefix runs over
 * ipId and then over portBE, which holds the port as a 32-bit number in
 * network order (htonl(port)), so its first 16 bits are zero. An exact port is
 * prefixlen 64; a range is split into aligned blocks, a block of 2^k ports
 * being prefixlen 64 - k, and all ports of an id prefixlen 48.
 *
 * A remote-port entry (looked up with the address entry's ipId) passes the
 * protocols in passPorts outright; for the protocols in chainPorts it passes
 * only if the local port is found under localChainId with that protocol in
 * the local entry's passPorts. User space gives overlapping ranges disjoint
 * blocks and one chain id per distinct set of local ranges, so that two
 * exclusions never meet in one entry.
 */
struct IsolationPortsKey {
  __u32 prefixlen;
  __u32 ipId;
  __u32 portBE;
};

#define kIsolationPortsKeyFixedBits 48 /* ipId and the zero half of portBE */

struct IsolationPortsValue {
  __u32 localChainId; /* ipId of the local ports to look up (chainPorts) */
  __u16 refCount;     /* exclusions that use this entry (kept by user space) */
  __u8 passPorts;     /* kIsolationPort* bits passed by this port alone */
  __u8 chainPorts;    /* kIsolationPort* bits that also need the local port */
};

/*
 * PolicyPacketExcludeForAppStep0: excluded executables, hash. The identity is
 * the executable file's inode and device as the kernel knows them (dev_t as
 * major << 20 | minor), which the process tracking programs read from the
 * task; user space resolves the canonical path (at most 256 bytes) to them.
 */
struct IsolationAppKey {
  __u64 inode;
  __u32 device;
  __u32 reserved; /* zero */
};

struct IsolationAppValue {
  __u32 exeId;
  __u32 refCount;
};

/*
 * TCPConntrack: the TCP connections of excluded executables, hash, written by
 * the process tracking programs and read by the classifiers at step 0.
 * Addresses as in the address tries (IPv4-mapped).
 */
struct IsolationConnectionKey {
  __u8 local[16];
  __u8 remote[16];
  __u16 localPortBE;
  __u16 remotePortBE;
  __u8 protocol; /* IPPROTO_TCP */
  __u8 reserved[3]; /* zero */
};

struct IsolationConnectionValue {
  __u32 exeId;
  __u32 state; /* the socket's last TCP state */
};

/*
 * RuntimeListenSocket: local ports on which an excluded executable listens,
 * hash; the classifiers pass TCP to and from them at step 0.
 */
struct IsolationListenKey {
  __u16 localPortBE;
  __u8 protocol; /* IPPROTO_TCP */
  __u8 reserved; /* zero */
};

struct IsolationListenValue {
  __u32 exeId;
  __u32 sockets; /* listening sockets on the port */
};

/*
 * RuntimeSockets: the sockets of excluded executables by socket cookie, hash;
 * RuntimeConnectRequestSocket: connects requested by them whose local port is
 * not known yet, by socket cookie, hash. Both belong to the process tracking
 * programs; the classifiers do not read them.
 */
struct IsolationSocketValue {
  __u32 exeId;
  __u32 state;
};

struct IsolationConnectRequestValue {
  __u8 remote[16];
  __u16 remotePortBE;
  __u16 family;
  __u32 exeId;
};

/* Heap: one per-CPU scratch entry for the process tracking programs, whose
 * keys do not fit on the 512-byte eBPF stack together. */
struct IsolationHeapValue {
  struct IsolationConnectionKey connection;
  struct IsolationAppKey app;
  __u8 scratch[256];
};

ISOLATION_STATIC_ASSERT(sizeof(struct IsolationAddressKey) == 20, "address key");
ISOLATION_STATIC_ASSERT(offsetof(struct IsolationAddressKey, addr) == 4, "address key: prefix leads");
ISOLATION_STATIC_ASSERT(sizeof(struct IsolationAddressValue) == 40, "address value");
ISOLATION_STATIC_ASSERT(offsetof(struct IsolationAddressValue, protocols) == 8, "address value protocols");
ISOLATION_STATIC_ASSERT(sizeof(struct IsolationPortsKey) == 12, "ports key");
ISOLATION_STATIC_ASSERT(offsetof(struct IsolationPortsKey, ipId) == 4, "ports key ipId");
ISOLATION_STATIC_ASSERT(offsetof(struct IsolationPortsKey, portBE) == 8, "ports key portBE");
ISOLATION_STATIC_ASSERT(sizeof(struct IsolationPortsValue) == 8, "ports value");
ISOLATION_STATIC_ASSERT(offsetof(struct IsolationPortsValue, passPorts) == 6, "ports value bits");
ISOLATION_STATIC_ASSERT(sizeof(struct IsolationAppKey) == 16, "application key");
ISOLATION_STATIC_ASSERT(sizeof(struct IsolationAppValue) == 8, "application value");
ISOLATION_STATIC_ASSERT(sizeof(struct IsolationConnectionKey) == 40, "connection key");
ISOLATION_STATIC_ASSERT(offsetof(struct IsolationConnectionKey, localPortBE) == 32, "connection key ports");
ISOLATION_STATIC_ASSERT(offsetof(struct IsolationConnectionKey, protocol) == 36, "connection key protocol");
ISOLATION_STATIC_ASSERT(sizeof(struct IsolationConnectionValue) == 8, "connection value");
ISOLATION_STATIC_ASSERT(sizeof(struct IsolationListenKey) == 4, "listen key");
ISOLATION_STATIC_ASSERT(sizeof(struct IsolationListenValue) == 8, "listen value");
ISOLATION_STATIC_ASSERT(sizeof(struct IsolationSocketValue) == 8, "socket value");
ISOLATION_STATIC_ASSERT(sizeof(struct IsolationConnectRequestValue) == 24, "connect request value");
ISOLATION_STATIC_ASSERT(sizeof(struct IsolationHeapValue) == 312, "heap value");

#undef ISOLATION_STATIC_ASSERT

#ifdef __cplusplus
}  // namespace qel::firewall::ebpf
#endif

#endif /* FIREWALL_EBPF_NETWORK_ISOLATION_MAPS_H */
