// The kernel's link table through libnl-route: a cache kept current by the
// cache manager's subscription to link notifications, and link changes sent
// on a socket of their own.
#include <linux/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <netlink/cache.h>
#include <netlink/netlink.h>
#include <netlink/route/link.h>

#include <map>

#include "tevnet.h"

namespace tevnet {

struct Netlink::Impl {
  struct nl_cache_mngr *mngr = nullptr;
  struct nl_cache *links = nullptr;
  struct nl_sock *request = nullptr;
  bool changed = false;

  static void OnChange(struct nl_cache *, struct nl_object *, int, void *arg) {
    static_cast<Impl *>(arg)->changed = true;
  }
};

Netlink::Netlink() : impl_(new Impl) {}

Netlink::~Netlink() {
  if (impl_->mngr != nullptr) nl_cache_mngr_free(impl_->mngr);  // frees its caches
  if (impl_->request != nullptr) nl_socket_free(impl_->request);
  delete impl_;
}

bool Netlink::Open(std::string *why) {
  int err = nl_cache_mngr_alloc(nullptr, NETLINK_ROUTE, NL_AUTO_PROVIDE, &impl_->mngr);
  if (err < 0) {
    *why = std::string("cannot subscribe to link notifications: ") + nl_geterror(err);
    return false;
  }
  err = nl_cache_mngr_add(impl_->mngr, "route/link", &Impl::OnChange, impl_, &impl_->links);
  if (err < 0) {
    *why = std::string("cannot read the link table: ") + nl_geterror(err);
    return false;
  }
  impl_->request = nl_socket_alloc();
  if (impl_->request == nullptr || (err = nl_connect(impl_->request, NETLINK_ROUTE)) < 0) {
    *why = std::string("cannot open a netlink socket: ") + nl_geterror(err);
    return false;
  }
  return true;
}

int Netlink::Fd() const { return nl_cache_mngr_get_fd(impl_->mngr); }

bool Netlink::Poll() {
  impl_->changed = false;
  int n = nl_cache_mngr_data_ready(impl_->mngr);
  if (n < 0) {
    // Notifications were lost (a full socket buffer): read the table afresh.
    Log("netlink: %s; reading the link table again", nl_geterror(n));
    int err = nl_cache_refill(impl_->request, impl_->links);
    if (err < 0) Log("netlink: cannot read the link table: %s", nl_geterror(err));
    return true;
  }
  return impl_->changed;
}

std::vector<Link> Netlink::Links() const {
  // libnl files a bridge device under AF_BRIDGE. Bridge port notifications
  // add AF_BRIDGE twins of the ports too, and these can outlive the port
  // (no AF_BRIDGE deletion follows when the interface goes): they are never
  // taken, and of two entries for one ifindex the AF_UNSPEC one wins.
  std::map<int, std::pair<int, Link>> byIndex;
  nl_cache_foreach(
      impl_->links,
      [](struct nl_object *obj, void *arg) {
        struct rtnl_link *l = reinterpret_cast<struct rtnl_link *>(obj);
        int family = rtnl_link_get_family(l);
        Link link;
        link.ifindex = rtnl_link_get_ifindex(l);
        const char *name = rtnl_link_get_name(l);
        link.name = name != nullptr ? name : "";
        const char *kind = rtnl_link_get_type(l);
        link.kind = kind != nullptr ? kind : "";
        unsigned flags = rtnl_link_get_flags(l);
        link.loopback = (flags & IFF_LOOPBACK) != 0;
        link.ether = rtnl_link_get_arptype(l) == ARPHRD_ETHER;
        link.adminUp = (flags & IFF_UP) != 0;
        link.carrier = (flags & IFF_LOWER_UP) != 0;
        link.master = rtnl_link_get_master(l);
        if (family != AF_UNSPEC && link.kind != "bridge") return;
        auto &all = *static_cast<std::map<int, std::pair<int, Link>> *>(arg);
        auto it = all.find(link.ifindex);
        if (link.name.empty() || (it != all.end() && it->second.first == AF_UNSPEC)) return;
        all[link.ifindex] = {family, link};
      },
      &byIndex);
  std::vector<Link> out;
  out.reserve(byIndex.size());
  for (const auto &e : byIndex) out.push_back(e.second.second);
  return out;
}

int Netlink::SetAdminUp(int ifindex, bool up, std::string *why) {
  struct rtnl_link *orig = rtnl_link_get(impl_->links, ifindex);
  if (orig == nullptr) {
    *why = "no such interface";
    return -NLE_OBJ_NOTFOUND;
  }
  struct rtnl_link *change = rtnl_link_alloc();
  if (change == nullptr) {
    rtnl_link_put(orig);
    *why = "out of memory";
    return -NLE_NOMEM;
  }
  if (up) {
    rtnl_link_set_flags(change, IFF_UP);
  } else {
    rtnl_link_unset_flags(change, IFF_UP);
  }
  int err = rtnl_link_change(impl_->request, orig, change, 0);
  if (err < 0) *why = nl_geterror(err);
  rtnl_link_put(change);
  rtnl_link_put(orig);
  return err;
}

}  // namespace tevnet
