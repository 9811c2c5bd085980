#include "platform/linux/RouteDecision.hpp"

#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

// The netlink walking macros mix int lengths with unsigned header fields by design.
#pragma GCC diagnostic ignored "-Wsign-compare"

namespace vntr {

uint32_t reachabilityFlagsFor(const std::vector<DefaultRoute>& routes,
                              const std::map<int, LinkInfo>& links) {
  bool reachable = false;
  for (const DefaultRoute& route : routes) {
    const auto link = links.find(route.outputInterface);
    if (link == links.end() || !link->second.up) continue;
    if (!link->second.wwan) return kReachabilityReachable;
    reachable = true;
  }
  return reachable ? (kReachabilityReachable | kReachabilityIsWWAN) : 0;
}

namespace {

bool isAligned(const void* data) { return reinterpret_cast<uintptr_t>(data) % NLMSG_ALIGNTO == 0; }

// Next hops that the kernel itself will not use for lack of carrier, or that it marked dead.
constexpr unsigned kUnusableNextHop = RTNH_F_LINKDOWN | RTNH_F_DEAD;

void parseLink(const nlmsghdr* message, NetlinkSnapshot& snapshot) {
  if (message->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return;
  const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
  if (info->ifi_index <= 0) return;
  LinkInfo link;
  link.up = (info->ifi_flags & IFF_UP) != 0;
  int length = static_cast<int>(IFLA_PAYLOAD(message));
  for (const rtattr* attribute = IFLA_RTA(info); RTA_OK(attribute, length);
       attribute = RTA_NEXT(attribute, length)) {
    if (attribute->rta_type != IFLA_IFNAME) continue;
    const auto* text = static_cast<const char*>(RTA_DATA(attribute));
    const size_t size = RTA_PAYLOAD(attribute);
    link.name.assign(text, strnlen(text, size));
  }
  snapshot.links[info->ifi_index] = std::move(link);
}

void addNextHops(const rtattr* multipath, int family, std::vector<DefaultRoute>& routes) {
  int length = static_cast<int>(RTA_PAYLOAD(multipath));
  const auto* hop = static_cast<const rtnexthop*>(RTA_DATA(multipath));
  // RTNH_OK reads rtnh_len before checking that a whole rtnexthop remains, so check that first.
  while (length >= static_cast<int>(sizeof(rtnexthop)) && RTNH_OK(hop, length)) {
    if ((hop->rtnh_flags & kUnusableNextHop) == 0 && hop->rtnh_ifindex > 0) {
      routes.push_back({family, hop->rtnh_ifindex});
    }
    length -= static_cast<int>(RTNH_ALIGN(hop->rtnh_len));
    hop = RTNH_NEXT(hop);
  }
}

void parseRoute(const nlmsghdr* message, NetlinkSnapshot& snapshot) {
  if (message->nlmsg_len < NLMSG_LENGTH(sizeof(rtmsg))) return;
  const auto* route = static_cast<const rtmsg*>(NLMSG_DATA(message));
  if (route->rtm_family != AF_INET && route->rtm_family != AF_INET6) return;
  if (route->rtm_dst_len != 0 || route->rtm_type != RTN_UNICAST) return;
  uint32_t table = route->rtm_table;
  int outputInterface = 0;
  const rtattr* multipath = nullptr;
  int length = static_cast<int>(RTM_PAYLOAD(message));
  for (const rtattr* attribute = RTM_RTA(route); RTA_OK(attribute, length);
       attribute = RTA_NEXT(attribute, length)) {
    const bool holdsU32 = RTA_PAYLOAD(attribute) >= sizeof(uint32_t);
    if (attribute->rta_type == RTA_TABLE && holdsU32) {
      std::memcpy(&table, RTA_DATA(attribute), sizeof table);
    } else if (attribute->rta_type == RTA_OIF && holdsU32) {
      std::memcpy(&outputInterface, RTA_DATA(attribute), sizeof outputInterface);
    } else if (attribute->rta_type == RTA_MULTIPATH) {
      multipath = attribute;
    }
  }
  if (table != RT_TABLE_MAIN) return;
  if (multipath != nullptr) {
    addNextHops(multipath, route->rtm_family, snapshot.routes);
  } else if (outputInterface > 0 && (route->rtm_flags & kUnusableNextHop) == 0) {
    snapshot.routes.push_back({route->rtm_family, outputInterface});
  }
}

}  // namespace

DumpStatus consumeDumpReply(const void* data, size_t length, uint32_t sequence,
                            NetlinkSnapshot& snapshot) {
  if (!isAligned(data) || length > static_cast<size_t>(INT32_MAX)) return DumpStatus::failed;
  int remaining = static_cast<int>(length);
  for (const auto* message = static_cast<const nlmsghdr*>(data); NLMSG_OK(message, remaining);
       message = NLMSG_NEXT(message, remaining)) {
    if (message->nlmsg_seq != sequence) continue;
    if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) snapshot.interrupted = true;
    switch (message->nlmsg_type) {
      case NLMSG_DONE: {
        // A dump can end with an error code in place of the usual 0.
        int error = 0;
        if (message->nlmsg_len >= NLMSG_LENGTH(sizeof error)) {
          std::memcpy(&error, NLMSG_DATA(message), sizeof error);
        }
        return error < 0 ? DumpStatus::failed : DumpStatus::done;
      }
      case NLMSG_ERROR: {
        if (message->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr))) return DumpStatus::failed;
        const auto* error = static_cast<const nlmsgerr*>(NLMSG_DATA(message));
        if (error->error != 0) return DumpStatus::failed;
        break;  // an acknowledgement, not an error
      }
      case NLMSG_OVERRUN:
        return DumpStatus::failed;
      case RTM_NEWLINK:
        parseLink(message, snapshot);
        break;
      case RTM_NEWROUTE:
        parseRoute(message, snapshot);
        break;
      default:
        break;
    }
  }
  return DumpStatus::incomplete;
}

bool notificationIsRelevant(const void* data, size_t length) {
  if (!isAligned(data) || length > static_cast<size_t>(INT32_MAX)) return false;
  int remaining = static_cast<int>(length);
  for (const auto* message = static_cast<const nlmsghdr*>(data); NLMSG_OK(message, remaining);
       message = NLMSG_NEXT(message, remaining)) {
    switch (message->nlmsg_type) {
      case RTM_NEWLINK:
      case RTM_DELLINK:
      case RTM_NEWROUTE:
      case RTM_DELROUTE:
        return true;
      default:
        break;
    }
  }
  return false;
}

namespace {

bool hasLine(std::string_view text, std::string_view wanted) {
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    if (text.substr(start, end - start) == wanted) return true;
    start = end + 1;
  }
  return false;
}

}  // namespace

bool ueventDeclaresWwan(std::string_view uevent, int index) {
  return hasLine(uevent, "DEVTYPE=wwan") && hasLine(uevent, "IFINDEX=" + std::to_string(index));
}

bool nameDeclaresWwan(std::string_view name) { return name.starts_with("wwan"); }

bool isPlausibleInterfaceName(std::string_view name) {
  return !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

}  // namespace vntr
