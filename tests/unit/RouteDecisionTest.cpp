#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <random>

#include "platform/linux/RouteDecision.hpp"
#include "platform/linux/RouteMonitor.hpp"
#include "support/TestSupport.hpp"

namespace vntr {
namespace {

using Bytes = std::vector<std::byte>;

void appendRaw(Bytes& out, const void* data, size_t size) {
  const auto* bytes = static_cast<const std::byte*>(data);
  out.insert(out.end(), bytes, bytes + size);
}

void pad(Bytes& out) { out.resize(NLMSG_ALIGN(out.size())); }

template <class T>
Bytes attribute(uint16_t type, const T& value) {
  Bytes out;
  rtattr header{static_cast<unsigned short>(RTA_LENGTH(sizeof value)), type};
  appendRaw(out, &header, sizeof header);
  appendRaw(out, &value, sizeof value);
  pad(out);
  return out;
}

Bytes nameAttribute(const std::string& name) {
  Bytes out;
  rtattr header{static_cast<unsigned short>(RTA_LENGTH(name.size() + 1)), IFLA_IFNAME};
  appendRaw(out, &header, sizeof header);
  appendRaw(out, name.c_str(), name.size() + 1);
  pad(out);
  return out;
}

/// One netlink message: header, fixed body, attributes.
template <class Body>
Bytes message(uint16_t type, uint32_t sequence, const Body& body,
              const std::vector<Bytes>& attributes = {}, uint16_t flags = NLM_F_MULTI) {
  Bytes out(NLMSG_HDRLEN);
  appendRaw(out, &body, sizeof body);
  pad(out);
  for (const Bytes& a : attributes) out.insert(out.end(), a.begin(), a.end());
  nlmsghdr header{static_cast<uint32_t>(out.size()), type, flags, sequence, 0};
  std::memcpy(out.data(), &header, sizeof header);
  return out;
}

Bytes link(uint32_t sequence, int index, const std::string& name, bool up) {
  ifinfomsg info{};
  info.ifi_family = AF_UNSPEC;
  info.ifi_index = index;
  info.ifi_flags = up ? (IFF_UP | IFF_RUNNING) : 0;
  return message(RTM_NEWLINK, sequence, info, {nameAttribute(name), attribute(IFLA_MTU, 1500u)});
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
  body.rtm_protocol = RTPROT_BOOT;
  body.rtm_flags = shape.flags;
  std::vector<Bytes> attributes = {attribute(RTA_PRIORITY, 100u)};
  if (shape.oif != 0) attributes.push_back(attribute(RTA_OIF, shape.oif));
  attributes.insert(attributes.end(), shape.extra.begin(), shape.extra.end());
  return message(RTM_NEWROUTE, sequence, body, attributes);
}

Bytes multipath(const std::vector<std::pair<int, unsigned char>>& hops) {
  Bytes payload;
  for (const auto& [index, flags] : hops) {
    rtnexthop hop{sizeof(rtnexthop), flags, 0, index};
    appendRaw(payload, &hop, sizeof hop);
  }
  Bytes out;
  rtattr header{static_cast<unsigned short>(RTA_LENGTH(payload.size())), RTA_MULTIPATH};
  appendRaw(out, &header, sizeof header);
  out.insert(out.end(), payload.begin(), payload.end());
  pad(out);
  return out;
}

Bytes done(uint32_t sequence, int error = 0) { return message(NLMSG_DONE, sequence, error); }

Bytes errorMessage(uint32_t sequence, int error, bool truncated = false) {
  nlmsgerr body{};
  body.error = error;
  Bytes out = message(NLMSG_ERROR, sequence, body, {}, 0);
  if (truncated) {
    out.resize(NLMSG_HDRLEN + sizeof(int));
    nlmsghdr header{};
    std::memcpy(&header, out.data(), sizeof header);
    header.nlmsg_len = static_cast<uint32_t>(out.size());
    std::memcpy(out.data(), &header, sizeof header);
  }
  return out;
}

Bytes join(const std::vector<Bytes>& parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

/// A heap copy of exactly `size` bytes, so the address sanitizer sees any read past the end.
class ExactCopy {
 public:
  ExactCopy(const Bytes& bytes, size_t size) : data_(new std::byte[size == 0 ? 1 : size]) {
    if (size > 0) std::memcpy(data_.get(), bytes.data(), size);
    size_ = size;
  }
  explicit ExactCopy(const Bytes& bytes) : ExactCopy(bytes, bytes.size()) {}
  const std::byte* data() const { return data_.get(); }
  size_t size() const { return size_; }

 private:
  std::unique_ptr<std::byte[]> data_;
  size_t size_ = 0;
};

DumpStatus consume(const Bytes& datagram, uint32_t sequence, NetlinkSnapshot& snapshot) {
  const ExactCopy copy(datagram);
  return consumeDumpReply(copy.data(), copy.size(), sequence, snapshot);
}

bool relevant(const Bytes& datagram) {
  const ExactCopy copy(datagram);
  return notificationIsRelevant(copy.data(), copy.size());
}

std::vector<std::pair<int, int>> routePairs(const NetlinkSnapshot& snapshot) {
  std::vector<std::pair<int, int>> pairs;
  for (const DefaultRoute& r : snapshot.routes) pairs.emplace_back(r.family, r.outputInterface);
  return pairs;
}

TEST(RouteDecision, flagsFollowUsableDefaultRoutesAndPreferNonWwan) {
  const std::map<int, LinkInfo> links = {{1, {"lo", true, false}},
                                         {2, {"eth0", true, false}},
                                         {3, {"wwan0", true, true}},
                                         {4, {"eth1", false, false}},
                                         {5, {"wwan1", false, true}}};
  struct Case {
    std::vector<DefaultRoute> routes;
    uint32_t expected;
  };
  const std::vector<Case> cases = {
      {{}, 0},
      {{{AF_INET, 4}}, 0},                   // interface down
      {{{AF_INET, 9}}, 0},                   // interface vanished
      {{{AF_INET, 2}}, 0x2},                 //
      {{{AF_INET6, 3}}, 0x40002},            // only WWAN
      {{{AF_INET, 3}, {AF_INET6, 2}}, 0x2},  // the other uplink wins, in either order
      {{{AF_INET, 2}, {AF_INET, 3}}, 0x2},
      {{{AF_INET, 4}, {AF_INET, 3}}, 0x40002},  // the down one does not count
      {{{AF_INET, 5}, {AF_INET, 4}}, 0},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(reachabilityFlagsFor(cases[i].routes, links), cases[i].expected) << "case " << i;
  }
}

TEST(RouteDecision, multipartDumpCollectsLinksAndOnlyUsableMainDefaultRoutes) {
  constexpr uint32_t seq = 7;
  RouteSpec ipv4{.oif = 2};
  RouteSpec ipv6{.family = AF_INET6, .oif = 3};
  RouteSpec subnet{.dstLen = 24, .oif = 4};
  RouteSpec localTable{.table = RT_TABLE_LOCAL, .oif = 4};
  RouteSpec bigTable{.table = RT_TABLE_COMPAT, .oif = 4, .extra = {attribute(RTA_TABLE, 1000u)}};
  RouteSpec mainByAttribute{
      .table = RT_TABLE_UNSPEC, .oif = 5, .extra = {attribute(RTA_TABLE, uint32_t{RT_TABLE_MAIN})}};
  RouteSpec unreachable{.type = RTN_UNREACHABLE, .oif = 4};
  RouteSpec noCarrier{.flags = RTNH_F_LINKDOWN, .oif = 4};
  RouteSpec multicastFamily{.family = RTNL_FAMILY_IPMR, .oif = 4};
  RouteSpec spread{.extra = {multipath({{6, 0}, {7, RTNH_F_LINKDOWN}, {8, RTNH_F_DEAD}, {9, 0}})}};

  NetlinkSnapshot snapshot;
  // Links and routes arrive over several datagrams, several messages each; a message from an
  // earlier request (other sequence) is ignored.
  EXPECT_EQ(consume(join({link(seq, 1, "lo", true), link(seq, 2, "eth0", true),
                          link(seq - 1, 3, "stale", true)}),
                    seq, snapshot),
            DumpStatus::incomplete);
  EXPECT_EQ(consume(join({link(seq, 3, "wwan0", false), route(seq, ipv4), route(seq, subnet),
                          route(seq, localTable), route(seq, bigTable)}),
                    seq, snapshot),
            DumpStatus::incomplete);
  EXPECT_EQ(consume(join({route(seq, ipv6), route(seq, mainByAttribute), route(seq, unreachable),
                          route(seq, noCarrier), route(seq, multicastFamily), route(seq, spread),
                          done(seq), route(seq, RouteSpec{.oif = 99})}),
                    seq, snapshot),
            DumpStatus::done);

  ASSERT_EQ(snapshot.links.size(), 3u);
  EXPECT_EQ(snapshot.links.at(1).name, "lo");
  EXPECT_TRUE(snapshot.links.at(2).up);
  EXPECT_EQ(snapshot.links.at(3).name, "wwan0");
  EXPECT_FALSE(snapshot.links.at(3).up);
  EXPECT_FALSE(snapshot.links.at(3).wwan);  // decided by the monitor, not the parser
  const std::vector<std::pair<int, int>> expected = {
      {AF_INET, 2}, {AF_INET6, 3}, {AF_INET, 5}, {AF_INET, 6}, {AF_INET, 9}};
  EXPECT_EQ(routePairs(snapshot), expected);
  EXPECT_FALSE(snapshot.interrupted);
}

TEST(RouteDecision, dumpEndsOnKernelErrorsButNotOnAcknowledgements) {
  constexpr uint32_t seq = 3;
  NetlinkSnapshot snapshot;
  EXPECT_EQ(consume(errorMessage(seq, -EBUSY), seq, snapshot), DumpStatus::failed);
  EXPECT_EQ(consume(errorMessage(seq, -EBUSY, /*truncated=*/true), seq, snapshot),
            DumpStatus::failed);
  EXPECT_EQ(consume(join({errorMessage(seq, 0), link(seq, 4, "eth3", true)}), seq, snapshot),
            DumpStatus::incomplete);
  EXPECT_EQ(snapshot.links.count(4), 1u);
  EXPECT_EQ(consume(errorMessage(seq + 1, -EPERM), seq, snapshot), DumpStatus::incomplete);
  EXPECT_EQ(consume(done(seq, -EINTR), seq, snapshot), DumpStatus::failed);
  EXPECT_EQ(consume(message(NLMSG_OVERRUN, seq, 0), seq, snapshot), DumpStatus::failed);
  // A bare NLMSG_DONE without the error word still ends the dump.
  Bytes bare(NLMSG_HDRLEN);
  const nlmsghdr bareHeader{NLMSG_HDRLEN, NLMSG_DONE, NLM_F_MULTI, seq, 0};
  std::memcpy(bare.data(), &bareHeader, sizeof bareHeader);
  EXPECT_EQ(consume(bare, seq, snapshot), DumpStatus::done);

  Bytes interrupted = route(seq, RouteSpec{.oif = 2});
  nlmsghdr header{};
  std::memcpy(&header, interrupted.data(), sizeof header);
  header.nlmsg_flags |= NLM_F_DUMP_INTR;
  std::memcpy(interrupted.data(), &header, sizeof header);
  EXPECT_EQ(consume(interrupted, seq, snapshot), DumpStatus::incomplete);
  EXPECT_TRUE(snapshot.interrupted);
}

TEST(RouteDecision, malformedInputIsSkippedWithoutReadingPastTheEnd) {
  constexpr uint32_t seq = 1;
  // Every prefix of a valid datagram: whole messages before the cut are used, the cut one is
  // ignored, nothing is read beyond the buffer (the address sanitizer checks that).
  const Bytes valid =
      join({link(seq, 2, "eth0", true),
            route(seq, RouteSpec{.extra = {multipath({{2, 0}, {3, 0}})}}), done(seq)});
  const size_t firstEnd = link(seq, 2, "eth0", true).size();
  for (size_t size = 0; size <= valid.size(); ++size) {
    NetlinkSnapshot snapshot;
    const ExactCopy copy(valid, size);
    const DumpStatus status = consumeDumpReply(copy.data(), copy.size(), seq, snapshot);
    EXPECT_EQ(status, size == valid.size() ? DumpStatus::done : DumpStatus::incomplete) << size;
    EXPECT_EQ(snapshot.links.size(), size >= firstEnd ? 1u : 0u) << size;
    EXPECT_EQ(notificationIsRelevant(copy.data(), copy.size()), size >= firstEnd) << size;
  }

  // Lengths inside the messages that lie: too short a body, attributes and next hops that
  // claim more than their container holds, an unterminated name.
  NetlinkSnapshot snapshot;
  Bytes shortRoute = route(seq, RouteSpec{.oif = 2});
  shortRoute.resize(NLMSG_HDRLEN + 4);
  nlmsghdr header{static_cast<uint32_t>(shortRoute.size()), RTM_NEWROUTE, 0, seq, 0};
  std::memcpy(shortRoute.data(), &header, sizeof header);
  Bytes longAttribute = route(seq, RouteSpec{.oif = 2});
  rtattr lying{0xfff0, RTA_OIF};  // the first attribute claims far more than the message
  std::memcpy(longAttribute.data() + NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(rtmsg)), &lying,
              sizeof lying);
  Bytes badHops = multipath({{3, 0}, {4, 0}});
  rtnexthop hugeHop{0x7ff0, 0, 0, 4};
  std::memcpy(badHops.data() + RTA_LENGTH(sizeof(rtnexthop)), &hugeHop, sizeof hugeHop);
  Bytes unterminated = link(seq, 6, "eth6", true);
  const size_t nameAt = NLMSG_HDRLEN + sizeof(ifinfomsg) + sizeof(rtattr);
  std::memcpy(unterminated.data() + nameAt, "abcd\x7f", 5);  // overwrites the NUL too
  EXPECT_EQ(consume(join({shortRoute, longAttribute, route(seq, RouteSpec{.extra = {badHops}}),
                          unterminated, message(0x7777, seq, 42), done(seq)}),
                    seq, snapshot),
            DumpStatus::done);
  EXPECT_EQ(routePairs(snapshot), (std::vector<std::pair<int, int>>{{AF_INET, 3}}));
  ASSERT_EQ(snapshot.links.count(6), 1u);
  EXPECT_LE(snapshot.links.at(6).name.size(), 8u);
  EXPECT_EQ(snapshot.links.at(6).name.substr(0, 4), "abcd");

  // A message header claiming more than the datagram, or less than itself, stops the walk.
  Bytes overlong = link(seq, 8, "eth8", true);
  header = {static_cast<uint32_t>(overlong.size() + 64), RTM_NEWLINK, 0, seq, 0};
  std::memcpy(overlong.data(), &header, sizeof header);
  Bytes tiny = join({link(seq, 9, "eth9", true), done(seq)});
  header = {4, RTM_NEWLINK, 0, seq, 0};
  std::memcpy(tiny.data(), &header, sizeof header);
  EXPECT_EQ(consume(overlong, seq, snapshot), DumpStatus::incomplete);
  EXPECT_EQ(consume(tiny, seq, snapshot), DumpStatus::incomplete);
  EXPECT_EQ(snapshot.links.count(8) + snapshot.links.count(9), 0u);

  // A buffer that is not aligned for netlink headers is refused rather than misread.
  alignas(8) std::byte shifted[256] = {};
  const Bytes one = link(seq, 2, "eth0", true);
  std::memcpy(shifted + 1, one.data(), one.size());
  EXPECT_EQ(consumeDumpReply(shifted + 1, one.size(), seq, snapshot), DumpStatus::failed);
  EXPECT_FALSE(notificationIsRelevant(shifted + 1, one.size()));

  // Random bytes: any outcome is fine as long as nothing is read out of bounds.
  std::mt19937 random(1234);
  for (int round = 0; round < 2000; ++round) {
    Bytes noise(random() % 300);
    for (std::byte& b : noise) b = static_cast<std::byte>(random());
    if (noise.size() >= sizeof(nlmsghdr) && round % 2 == 0) {
      header = {static_cast<uint32_t>(noise.size()),
                static_cast<uint16_t>(round % 4 == 0 ? RTM_NEWROUTE : RTM_NEWLINK), 0, seq, 0};
      std::memcpy(noise.data(), &header, sizeof header);
    }
    NetlinkSnapshot scratch;
    consume(noise, seq, scratch);
    relevant(noise);
  }
}

TEST(RouteDecision, onlyLinkAndRouteChangesAreRelevant) {
  ifaddrmsg address{};
  EXPECT_TRUE(relevant(route(0, RouteSpec{.dstLen = 24, .oif = 3})));
  EXPECT_TRUE(relevant(message(RTM_DELLINK, 0, ifinfomsg{})));
  EXPECT_TRUE(relevant(message(RTM_DELROUTE, 0, rtmsg{})));
  EXPECT_FALSE(relevant(message(RTM_NEWADDR, 0, address)));
  EXPECT_TRUE(relevant(join({message(RTM_NEWADDR, 0, address), link(0, 2, "eth0", false)})));
  EXPECT_FALSE(relevant(done(0)));
  EXPECT_FALSE(relevant({}));
}

TEST(RouteDecision, wwanIsRecognisedByNameOrByTheSysfsDeviceTypeOfThatVeryInterface) {
  EXPECT_TRUE(nameDeclaresWwan("wwan0"));
  EXPECT_FALSE(nameDeclaresWwan("wlan0"));
  EXPECT_FALSE(nameDeclaresWwan("mywwan"));
  EXPECT_TRUE(ueventDeclaresWwan("INTERFACE=mbim0\nIFINDEX=5\nDEVTYPE=wwan\n", 5));
  EXPECT_FALSE(ueventDeclaresWwan("INTERFACE=mbim0\nIFINDEX=5\nDEVTYPE=wwan\n", 6));
  EXPECT_FALSE(ueventDeclaresWwan("INTERFACE=mbim0\nIFINDEX=55\nDEVTYPE=wwan\n", 5));
  EXPECT_FALSE(ueventDeclaresWwan("INTERFACE=wlan0\nIFINDEX=5\nDEVTYPE=wlan\n", 5));
  EXPECT_FALSE(ueventDeclaresWwan("IFINDEX=5\nDEVTYPE=wwanx", 5));
  for (const char* name : {"", ".", "..", "a/b", "0123456789abcdef"}) {
    EXPECT_FALSE(isPlausibleInterfaceName(name)) << name;
  }
  EXPECT_TRUE(isPlausibleInterfaceName("enp0s31f6"));

  test::TempDir temp;
  const std::filesystem::path root = temp / "net";
  std::filesystem::create_directories(root / "mbim0");
  std::ofstream(root / "mbim0" / "uevent") << "INTERFACE=mbim0\nIFINDEX=5\nDEVTYPE=wwan\n";
  std::filesystem::create_directories(root / "eth0");
  std::ofstream(root / "eth0" / "uevent") << "INTERFACE=eth0\nIFINDEX=2\n";
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
