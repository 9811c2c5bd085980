#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <fstream>
#include <random>

#include "platform/linux/RouteDecision.hpp"
#include "platform/linux/RouteMonitor.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using Bytes = std::vector<std::byte>;

// Appends and pads to the netlink alignment.
void append(Bytes& out, const void* data, size_t size) {
  const auto* bytes = static_cast<const std::byte*>(data);
  out.insert(out.end(), bytes, bytes + size);
  out.resize(NLMSG_ALIGN(out.size()));
}

Bytes attribute(uint16_t type, const void* value, size_t size) {
  Bytes out;
  const rtattr header{static_cast<unsigned short>(RTA_LENGTH(size)), type};
  append(out, &header, sizeof header);
  append(out, value, size);
  return out;
}

template <class T>
Bytes attribute(uint16_t type, const T& value) {
  return attribute(type, &value, sizeof value);
}

void setHeader(Bytes& message, const nlmsghdr& header) {
  std::memcpy(message.data(), &header, sizeof header);
}

/// One netlink message: header, fixed body, attributes.
template <class Body>
Bytes message(uint16_t type, uint32_t sequence, const Body& body,
              const std::vector<Bytes>& attributes = {}, uint16_t flags = NLM_F_MULTI) {
  Bytes out(NLMSG_HDRLEN);
  append(out, &body, sizeof body);
  for (const Bytes& a : attributes) out.insert(out.end(), a.begin(), a.end());
  setHeader(out, {static_cast<uint32_t>(out.size()), type, flags, sequence, 0});
  return out;
}

Bytes link(uint32_t sequence, int index, const std::string& name, bool up) {
  ifinfomsg info{};
  info.ifi_index = index;
  info.ifi_flags = up ? (IFF_UP | IFF_RUNNING) : 0;
  return message(
      RTM_NEWLINK, sequence, info,
      {attribute(IFLA_IFNAME, name.c_str(), name.size() + 1), attribute(IFLA_MTU, 1500u)});
}

struct RouteSpec {
  int family = AF_INET;
  uint8_t dstLen = 0;
  uint8_t table = RT_TABLE_MAIN;
  uint8_t type = RTN_UNICAST;
  unsigned flags = 0;
  int oif = 0;
  std::vector<Bytes> extra = {};
};

Bytes route(uint32_t sequence, const RouteSpec& shape) {
  rtmsg body{};
  body.rtm_family = static_cast<unsigned char>(shape.family);
  body.rtm_dst_len = shape.dstLen;
  body.rtm_table = shape.table;
  body.rtm_type = shape.type;
  body.rtm_flags = shape.flags;
  std::vector<Bytes> attributes = {attribute(RTA_PRIORITY, 100u)};
  if (shape.oif != 0) attributes.push_back(attribute(RTA_OIF, shape.oif));
  attributes.insert(attributes.end(), shape.extra.begin(), shape.extra.end());
  return message(RTM_NEWROUTE, sequence, body, attributes);
}

Bytes multipath(const std::vector<std::pair<int, unsigned char>>& hops) {
  Bytes payload;
  for (const auto& [index, flags] : hops) {
    const rtnexthop hop{sizeof(rtnexthop), flags, 0, index};
    append(payload, &hop, sizeof hop);
  }
  return attribute(RTA_MULTIPATH, payload.data(), payload.size());
}

Bytes error(uint32_t sequence, int code) {
  nlmsgerr body{};
  body.error = code;
  return message(NLMSG_ERROR, sequence, body, {}, 0);
}

Bytes done(uint32_t sequence, int error = 0) { return message(NLMSG_DONE, sequence, error); }

Bytes join(const std::vector<Bytes>& parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// The parsers read a copy of exactly the datagram's size (a copied vector holds no spare room),
// so the address sanitizer sees any read past its end.
DumpStatus consume(const Bytes& datagram, uint32_t sequence, NetlinkSnapshot& snapshot) {
  const Bytes copy(datagram);
  return consumeDumpReply(copy.data(), copy.size(), sequence, snapshot);
}

bool relevant(const Bytes& datagram) {
  const Bytes copy(datagram);
  return notificationIsRelevant(copy.data(), copy.size());
}

std::vector<std::pair<int, int>> routePairs(const NetlinkSnapshot& snapshot) {
  std::vector<std::pair<int, int>> pairs;
  for (const DefaultRoute& r : snapshot.routes) pairs.emplace_back(r.family, r.outputInterface);
  return pairs;
}

TEST(RouteDecision, multipartDumpCollectsLinksAndOnlyUsableMainDefaultRoutes) {
  constexpr uint32_t seq = 7;
  const std::vector<RouteSpec> unusable = {
      {.dstLen = 24, .oif = 4},             // not a default
      {.table = RT_TABLE_LOCAL, .oif = 4},  // other tables
      {.table = RT_TABLE_COMPAT, .oif = 4, .extra = {attribute(RTA_TABLE, 1000u)}},
      {.type = RTN_UNREACHABLE, .oif = 4},     //
      {.flags = RTNH_F_LINKDOWN, .oif = 4},    // no carrier
      {.family = RTNL_FAMILY_IPMR, .oif = 4},  // multicast
  };
  NetlinkSnapshot snapshot;
  // Links and routes arrive over several datagrams, several messages each; a message from an
  // earlier request (other sequence) is ignored.
  EXPECT_EQ(consume(join({link(seq, 1, "lo", true), link(seq, 2, "eth0", true),
                          link(seq - 1, 3, "stale", true)}),
                    seq, snapshot),
            DumpStatus::incomplete);
  Bytes routes = join({link(seq, 3, "wwan0", false), route(seq, {.oif = 2}),
                       route(seq, {.family = AF_INET6, .oif = 3})});
  for (const RouteSpec& shape : unusable) routes = join({routes, route(seq, shape)});
  EXPECT_EQ(consume(routes, seq, snapshot), DumpStatus::incomplete);
  const RouteSpec mainByAttribute{
      .table = RT_TABLE_UNSPEC, .oif = 5, .extra = {attribute(RTA_TABLE, uint32_t{RT_TABLE_MAIN})}};
  const RouteSpec spread{
      .extra = {multipath({{6, 0}, {7, RTNH_F_LINKDOWN}, {8, RTNH_F_DEAD}, {9, 0}})}};
  EXPECT_EQ(consume(join({route(seq, mainByAttribute), route(seq, spread), done(seq),
                          route(seq, {.oif = 99})}),
                    seq, snapshot),
            DumpStatus::done);

  ASSERT_EQ(snapshot.links.size(), 3u);
  EXPECT_EQ(snapshot.links.at(1).name, "lo");
  EXPECT_TRUE(snapshot.links.at(2).up);
  EXPECT_EQ(snapshot.links.at(3).name, "wwan0");
  EXPECT_FALSE(snapshot.links.at(3).up || snapshot.links.at(3).wwan);  // wwan: the monitor's call
  EXPECT_EQ(routePairs(snapshot),
            (std::vector<std::pair<int, int>>{
                {AF_INET, 2}, {AF_INET6, 3}, {AF_INET, 5}, {AF_INET, 6}, {AF_INET, 9}}));
  EXPECT_FALSE(snapshot.interrupted);
}

TEST(RouteDecision, dumpEndsOnKernelErrorsButNotOnAcknowledgementsOrOtherRequests) {
  constexpr uint32_t seq = 3;
  Bytes bareDone(NLMSG_HDRLEN);  // without the error word
  setHeader(bareDone, {NLMSG_HDRLEN, NLMSG_DONE, NLM_F_MULTI, seq, 0});
  Bytes interrupted = route(seq, {.oif = 2});
  setHeader(interrupted, {static_cast<uint32_t>(interrupted.size()), RTM_NEWROUTE,
                          NLM_F_MULTI | NLM_F_DUMP_INTR, seq, 0});
  const std::pair<Bytes, DumpStatus> cases[] = {
      {error(seq, -EBUSY), DumpStatus::failed},
      {message(NLMSG_ERROR, seq, -EBUSY, {}, 0), DumpStatus::failed},  // truncated error
      {join({error(seq, 0), link(seq, 4, "eth3", true)}), DumpStatus::incomplete},
      {error(seq + 1, -EPERM), DumpStatus::incomplete},
      {done(seq, -EINTR), DumpStatus::failed},
      {message(NLMSG_OVERRUN, seq, 0), DumpStatus::failed},
      {bareDone, DumpStatus::done},
      {interrupted, DumpStatus::incomplete},
  };
  NetlinkSnapshot snapshot;
  for (const auto& [datagram, status] : cases) EXPECT_EQ(consume(datagram, seq, snapshot), status);
  EXPECT_EQ(snapshot.links.count(4), 1u);
  EXPECT_TRUE(snapshot.interrupted);
}

TEST(RouteDecision, malformedInputIsSkippedWithoutReadingPastTheEnd) {
  constexpr uint32_t seq = 1;
  // Every prefix of a valid datagram: whole messages before the cut are used, the cut one is
  // ignored, nothing is read beyond the buffer.
  const Bytes first = link(seq, 2, "eth0", true);
  const Bytes valid =
      join({first, route(seq, {.extra = {multipath({{2, 0}, {3, 0}})}}), done(seq)});
  for (size_t size = 0; size <= valid.size(); ++size) {
    NetlinkSnapshot snapshot;
    const Bytes prefix(valid.begin(), valid.begin() + static_cast<ptrdiff_t>(size));
    const DumpStatus status = consume(prefix, seq, snapshot);
    EXPECT_EQ(status, size == valid.size() ? DumpStatus::done : DumpStatus::incomplete) << size;
    EXPECT_EQ(snapshot.links.size(), size >= first.size() ? 1u : 0u) << size;
    EXPECT_EQ(relevant(prefix), size >= first.size()) << size;
  }

  // Lengths inside the messages that lie: too short a body, attributes and next hops that
  // claim more than their container holds, an unterminated name.
  Bytes shortRoute = route(seq, {.oif = 2});
  shortRoute.resize(NLMSG_HDRLEN + 4);
  setHeader(shortRoute, {static_cast<uint32_t>(shortRoute.size()), RTM_NEWROUTE, 0, seq, 0});
  Bytes longAttribute = route(seq, {.oif = 2});
  const rtattr lying{0xfff0, RTA_OIF};  // the first attribute claims far more than the message
  std::memcpy(longAttribute.data() + NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtmsg)), &lying,
              sizeof lying);
  Bytes badHops = multipath({{3, 0}, {4, 0}});
  const rtnexthop hugeHop{0x7ff0, 0, 0, 4};
  std::memcpy(badHops.data() + RTA_LENGTH(sizeof(rtnexthop)), &hugeHop, sizeof hugeHop);
  Bytes unterminated = link(seq, 6, "eth6", true);
  const size_t nameAt = NLMSG_HDRLEN + sizeof(ifinfomsg) + sizeof(rtattr);
  std::memcpy(unterminated.data() + nameAt, "abcd\x7f", 5);  // overwrites the NUL too
  NetlinkSnapshot snapshot;
  EXPECT_EQ(consume(join({shortRoute, longAttribute, route(seq, {.extra = {badHops}}), unterminated,
                          message(0x7777, seq, 42), done(seq)}),
                    seq, snapshot),
            DumpStatus::done);
  EXPECT_EQ(routePairs(snapshot), (std::vector<std::pair<int, int>>{{AF_INET, 3}}));
  ASSERT_EQ(snapshot.links.count(6), 1u);
  EXPECT_LE(snapshot.links.at(6).name.size(), 8u);
  EXPECT_EQ(snapshot.links.at(6).name.substr(0, 4), "abcd");

  // A message header claiming more than the datagram, or less than itself, stops the walk.
  Bytes overlong = link(seq, 8, "eth8", true);
  setHeader(overlong, {static_cast<uint32_t>(overlong.size() + 64), RTM_NEWLINK, 0, seq, 0});
  Bytes tiny = join({link(seq, 9, "eth9", true), done(seq)});
  setHeader(tiny, {4, RTM_NEWLINK, 0, seq, 0});
  EXPECT_EQ(consume(overlong, seq, snapshot), DumpStatus::incomplete);
  EXPECT_EQ(consume(tiny, seq, snapshot), DumpStatus::incomplete);
  EXPECT_EQ(snapshot.links.count(8) + snapshot.links.count(9), 0u);

  // A buffer that is not aligned for netlink headers is refused rather than misread.
  alignas(8) std::byte shifted[256] = {};
  std::memcpy(shifted + 1, first.data(), first.size());
  EXPECT_EQ(consumeDumpReply(shifted + 1, first.size(), seq, snapshot), DumpStatus::failed);
  EXPECT_FALSE(notificationIsRelevant(shifted + 1, first.size()));

  // Random bytes: any outcome is fine as long as nothing is read out of bounds.
  std::mt19937 random(1234);
  for (int round = 0; round < 2000; ++round) {
    Bytes noise(random() % 300);
    for (std::byte& b : noise) b = static_cast<std::byte>(random());
    if (noise.size() >= sizeof(nlmsghdr) && round % 2 == 0) {
      const uint16_t type = round % 4 == 0 ? RTM_NEWROUTE : RTM_NEWLINK;
      setHeader(noise, {static_cast<uint32_t>(noise.size()), type, 0, seq, 0});
    }
    NetlinkSnapshot scratch;
    consume(noise, seq, scratch);
    relevant(noise);
  }
}

TEST(RouteDecision, onlyLinkAndRouteChangesAreRelevant) {
  const ifaddrmsg address{};
  EXPECT_TRUE(relevant(route(0, {.dstLen = 24, .oif = 3})));
  EXPECT_TRUE(relevant(message(RTM_DELLINK, 0, ifinfomsg{})));
  EXPECT_TRUE(relevant(message(RTM_DELROUTE, 0, rtmsg{})));
  EXPECT_FALSE(relevant(message(RTM_NEWADDR, 0, address)));
  EXPECT_TRUE(relevant(join({message(RTM_NEWADDR, 0, address), link(0, 2, "eth0", false)})));
  EXPECT_FALSE(relevant(done(0)));
}

TEST(RouteDecision, wwanIsRecognisedByNameOrByTheSysfsDeviceTypeOfThatVeryInterface) {
  EXPECT_FALSE(nameDeclaresWwan("wlan0") || nameDeclaresWwan("mywwan"));
  const std::string mbim = "INTERFACE=mbim0\nIFINDEX=5\nDEVTYPE=wwan\n";
  EXPECT_TRUE(ueventDeclaresWwan(mbim, 5));
  EXPECT_FALSE(ueventDeclaresWwan("INTERFACE=mbim0\nIFINDEX=55\nDEVTYPE=wwan\n", 5));
  EXPECT_FALSE(ueventDeclaresWwan("INTERFACE=wlan0\nIFINDEX=5\nDEVTYPE=wlan\n", 5));
  EXPECT_FALSE(ueventDeclaresWwan("IFINDEX=5\nDEVTYPE=wwanx", 5));
  for (const char* name : {"", ".", "..", "a/b", "0123456789abcdef"}) {
    EXPECT_FALSE(isPlausibleInterfaceName(name)) << name;
  }
  test::TempDir temp;
  const std::filesystem::path root = temp / "net";
  for (const auto& [name, uevent] : {std::pair{"mbim0", mbim}, {"eth0", "IFINDEX=2\n"}}) {
    std::filesystem::create_directories(root / name);
    std::ofstream(root / name / "uevent") << uevent;
  }
  std::ofstream(temp / "uevent") << "IFINDEX=5\nDEVTYPE=wwan\n";  // one level up from root
  EXPECT_TRUE(isWwanInterface("mbim0", 5, root));
  EXPECT_FALSE(isWwanInterface("mbim0", 7, root));  // same name, another interface by now
  EXPECT_FALSE(isWwanInterface("eth0", 2, root));
  EXPECT_FALSE(isWwanInterface("gone0", 3, root));  // vanished while we looked
  EXPECT_FALSE(isWwanInterface("..", 5, root));
  EXPECT_TRUE(isWwanInterface("wwan7", 9, root));
}

}  // namespace
}  // namespace vntr
