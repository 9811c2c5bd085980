#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vntr {

/// Reachability flag bits: reachable, and reached through a cellular (WWAN) interface.
inline constexpr uint32_t kReachabilityReachable = 0x2;
inline constexpr uint32_t kReachabilityIsWWAN = 0x40000;

/// One network interface as the kernel reported it. `wwan` is filled in by the monitor from
/// sysfs and the name; the netlink parser leaves it false.
struct LinkInfo {
  std::string name;
  bool up = false;
  bool wwan = false;
};

/// One usable next hop of a default route: its address family and output interface index.
/// A multipath route contributes one entry per next hop.
struct DefaultRoute {
  int family = 0;
  int outputInterface = 0;
};

/// The flags for a routing state: 0 when no default route goes through an interface that is up;
/// otherwise kReachabilityReachable, plus kReachabilityIsWWAN only when every usable default
/// route goes through a WWAN interface. Hosts with both a WWAN and another uplink normally send
/// through the other one (cellular is kept as the fallback), so the other one names the type.
uint32_t reachabilityFlagsFor(const std::vector<DefaultRoute>& routes,
                              const std::map<int, LinkInfo>& links);

/// What the kernel has told about links and default routes so far during one dump.
struct NetlinkSnapshot {
  std::map<int, LinkInfo> links;
  std::vector<DefaultRoute> routes;
  /// The kernel flagged the dump as inconsistent because the tables changed while it ran.
  bool interrupted = false;
};

enum class DumpStatus {
  incomplete,  ///< more datagrams belong to this dump
  done,        ///< NLMSG_DONE arrived
  failed,      ///< the kernel reported an error or sent something unusable
};

/// Parses one received datagram of a dump reply into `snapshot`. Messages whose sequence number
/// is not `sequence` (left over from an earlier request) are skipped, as are types other than
/// RTM_NEWLINK and RTM_NEWROUTE and messages too short for their header. `data` must be aligned
/// to 4 bytes, as every netlink buffer is; a misaligned buffer fails.
DumpStatus consumeDumpReply(const void* data, size_t length, uint32_t sequence,
                            NetlinkSnapshot& snapshot);

/// True when a datagram from the multicast groups carries a link or route change. Garbage and
/// truncated messages count as no change; same alignment rule as consumeDumpReply.
bool notificationIsRelevant(const void* data, size_t length);

/// True when a sysfs uevent text of a network interface has the line "DEVTYPE=wwan" and names
/// `index` in its "IFINDEX=" line; an entry for another interface (renamed, or replaced under
/// the same name meanwhile) does not count.
bool ueventDeclaresWwan(std::string_view uevent, int index);

/// True for kernel interface names that begin with "wwan".
bool nameDeclaresWwan(std::string_view name);

/// True when `name` can safely be used as one path component under /sys/class/net: non-empty,
/// shorter than IFNAMSIZ, not "." or "..", without '/' or NUL.
bool isPlausibleInterfaceName(std::string_view name);

}  // namespace vntr
