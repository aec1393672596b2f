// The kernel's link table over rtnetlink: one socket subscribed to link
// notifications, read message by message so that every change the kernel
// reports reaches the caller in order (a cache would merge a down and an up
// read in one batch), and a second socket for dumps and link changes.
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>
#include <netlink/route/rtnl.h>
#include <netlink/socket.h>

#include "tevnet.h"

namespace tevnet {

namespace {

// Room for a few thousand notifications: a burst of flaps is read late
// rather than lost (the kernel caps it at net.core.rmem_max).
constexpr int kReceiveBuffer = 4 << 20;

// One RTM_NEWLINK or RTM_DELLINK of the AF_UNSPEC family. The bridge's own
// AF_BRIDGE notifications about its ports repeat what these say, and are left out.
int OnMessage(struct nl_msg *msg, void *arg) {
  auto *out = static_cast<std::vector<LinkMessage> *>(arg);
  struct nlmsghdr *h = nlmsg_hdr(msg);
  if (out == nullptr || (h->nlmsg_type != RTM_NEWLINK && h->nlmsg_type != RTM_DELLINK) ||
      !nlmsg_valid_hdr(h, sizeof(struct ifinfomsg))) {
    return NL_OK;
  }
  const auto *ifi = static_cast<const struct ifinfomsg *>(nlmsg_data(h));
  if (ifi->ifi_family != AF_UNSPEC) return NL_OK;
  struct nlattr *tb[IFLA_MAX + 1];
  if (nlmsg_parse(h, sizeof(struct ifinfomsg), tb, IFLA_MAX, nullptr) < 0) return NL_OK;
  LinkMessage m;
  m.deleted = h->nlmsg_type == RTM_DELLINK;
  Link &link = m.link;
  link.ifindex = ifi->ifi_index;
  if (tb[IFLA_IFNAME] != nullptr) link.name = nla_get_string(tb[IFLA_IFNAME]);
  if (tb[IFLA_LINKINFO] != nullptr) {
    struct nlattr *info[IFLA_INFO_MAX + 1];
    if (nla_parse_nested(info, IFLA_INFO_MAX, tb[IFLA_LINKINFO], nullptr) == 0 &&
        info[IFLA_INFO_KIND] != nullptr) {
      link.kind = nla_get_string(info[IFLA_INFO_KIND]);
    }
  }
  link.loopback = (ifi->ifi_flags & IFF_LOOPBACK) != 0;
  link.ether = ifi->ifi_type == ARPHRD_ETHER;
  link.adminUp = (ifi->ifi_flags & IFF_UP) != 0;
  link.carrier = (ifi->ifi_flags & IFF_LOWER_UP) != 0;
  if (tb[IFLA_MASTER] != nullptr) link.master = static_cast<int>(nla_get_u32(tb[IFLA_MASTER]));
  struct stat st;
  link.hasDevice = !m.deleted && !link.name.empty() &&
                   stat(("/sys/class/net/" + link.name + "/device").c_str(), &st) == 0;
  if (link.name.empty() && !m.deleted) return NL_OK;
  out->push_back(std::move(m));
  return NL_OK;
}

}  // namespace

struct Netlink::Impl {
  struct nl_sock *events = nullptr;
  struct nl_sock *request = nullptr;
  struct nl_cb *cb = nullptr;
  std::vector<LinkMessage> pending;
  uint64_t overruns = 0;
};

Netlink::Netlink() : impl_(new Impl) {}

Netlink::~Netlink() {
  if (impl_->cb != nullptr) nl_cb_put(impl_->cb);
  if (impl_->events != nullptr) nl_socket_free(impl_->events);
  if (impl_->request != nullptr) nl_socket_free(impl_->request);
  delete impl_;
}

bool Netlink::Open(std::string *why) {
  impl_->events = nl_socket_alloc();
  impl_->request = nl_socket_alloc();
  if (impl_->events == nullptr || impl_->request == nullptr) {
    *why = "cannot open a netlink socket: out of memory";
    return false;
  }
  nl_socket_disable_seq_check(impl_->events);
  nl_socket_modify_cb(impl_->events, NL_CB_VALID, NL_CB_CUSTOM, &OnMessage, &impl_->pending);
  int err = nl_connect(impl_->events, NETLINK_ROUTE);
  if (err >= 0) err = nl_socket_add_membership(impl_->events, RTNLGRP_LINK);
  if (err >= 0) err = nl_socket_set_nonblocking(impl_->events);
  if (err < 0) {
    *why = std::string("cannot subscribe to link notifications: ") + nl_geterror(err);
    return false;
  }
  nl_socket_set_buffer_size(impl_->events, kReceiveBuffer, 0);  // best effort
  impl_->cb = nl_socket_get_cb(impl_->events);
  if ((err = nl_connect(impl_->request, NETLINK_ROUTE)) < 0) {
    *why = std::string("cannot open a netlink socket: ") + nl_geterror(err);
    return false;
  }
  return true;
}

int Netlink::Fd() const { return nl_socket_get_fd(impl_->events); }

uint64_t Netlink::Overruns() const { return impl_->overruns; }

bool Netlink::Read(std::vector<LinkMessage> *out) {
  bool overrun = false;
  impl_->pending.clear();
  // After an overrun everything queued is read before the table is: a
  // notification applied after the dump would take the state back in time.
  for (int rounds = 0; rounds < (overrun ? 1 << 20 : 4096); ++rounds) {
    int n = nl_recvmsgs_report(impl_->events, impl_->cb);
    if (n == 0 || n == -NLE_AGAIN) break;
    if (n == -NLE_NOMEM) {
      // libnl's name for ENOBUFS: the kernel found the receive buffer full
      // and dropped notifications. What is still queued is read on.
      overrun = true;
      ++impl_->overruns;
      continue;
    }
    if (n < 0) {
      Log("netlink: reading link notifications: %s", nl_geterror(n));
      break;
    }
  }
  out->swap(impl_->pending);
  impl_->pending.clear();
  return !overrun;
}

bool Netlink::Dump(std::vector<Link> *links, std::string *why) {
  std::vector<LinkMessage> got;
  int err = 0;
  // A dump that a change interrupts (NLM_F_DUMP_INTR) is started again.
  for (int attempt = 0; attempt < 5; ++attempt) {
    got.clear();
    nl_socket_modify_cb(impl_->request, NL_CB_VALID, NL_CB_CUSTOM, &OnMessage, &got);
    err = nl_rtgen_request(impl_->request, RTM_GETLINK, AF_UNSPEC, NLM_F_DUMP);
    if (err >= 0) err = nl_recvmsgs_default(impl_->request);
    nl_socket_modify_cb(impl_->request, NL_CB_VALID, NL_CB_CUSTOM, &OnMessage, nullptr);
    if (err != -NLE_DUMP_INTR) break;
  }
  if (err < 0) {
    *why = std::string("cannot read the link table: ") + nl_geterror(err);
    return false;
  }
  links->clear();
  for (LinkMessage &m : got)
    if (!m.deleted) links->push_back(std::move(m.link));
  return true;
}

int Netlink::SetAdminUp(int ifindex, bool up, std::string *why) {
  struct rtnl_link *orig = rtnl_link_alloc();
  struct rtnl_link *change = rtnl_link_alloc();
  int err = -NLE_NOMEM;
  if (orig != nullptr && change != nullptr) {
    rtnl_link_set_ifindex(orig, ifindex);
    if (up) {
      rtnl_link_set_flags(change, IFF_UP);
    } else {
      rtnl_link_unset_flags(change, IFF_UP);
    }
    err = rtnl_link_change(impl_->request, orig, change, 0);
  }
  if (err < 0) *why = nl_geterror(err);
  if (change != nullptr) rtnl_link_put(change);
  if (orig != nullptr) rtnl_link_put(orig);
  return err;
}

}  // namespace tevnet
