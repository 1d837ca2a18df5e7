#include "core/network.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace velmora {
namespace {

// An interface a packet can leave the host through. Reject and blackhole routes never pass: the
// kernel lists them on "lo" or on "*", no device. `control` is any socket of this namespace for
// the flags query; without one, only the names of the loopback and of "no device" are known.
bool LeavesHost(const Descriptor& control, const std::string& name) {
    if (!control) return name != "lo" && name != "*";
    ifreq request{};
    if (name.size() >= sizeof(request.ifr_name)) return false;
    std::memcpy(request.ifr_name, name.data(), name.size());
    if (::ioctl(control.get(), SIOCGIFFLAGS, &request) != 0) return false;  // "*": a route without a device
    const unsigned flags = static_cast<unsigned short>(request.ifr_flags);
    return (flags & IFF_UP) && (flags & IFF_RUNNING) && !(flags & IFF_LOOPBACK);
}

// /proc/net/route: Iface Destination Gateway Flags RefCnt Use Metric Mask ..., in hexadecimal.
bool Ipv4DefaultRoute(const Descriptor& control) {
    std::ifstream table("/proc/net/route");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string name, destination, gateway, flags, references, use, metric, mask;
        if (!(fields >> name >> destination >> gateway >> flags >> references >> use >> metric >> mask)) continue;
        if (destination == "00000000" && mask == "00000000" && LeavesHost(control, name)) {
            return true;
        }
    }
    return false;
}

// /proc/net/ipv6_route: destination, prefix length, source, source prefix length, next hop,
// metric, references, use, flags, device.
bool Ipv6DefaultRoute(const Descriptor& control) {
    std::ifstream table("/proc/net/ipv6_route");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string destination, length, source, sourceLength, next, metric, references, use, flags, name;
        if (!(fields >> destination >> length >> source >> sourceLength >> next >> metric >> references >> use >>
              flags >> name)) {
            continue;
        }
        if (destination == std::string(32, '0') && length == "00" && LeavesHost(control, name)) {
            return true;
        }
    }
    return false;
}

}  // namespace

RouteMonitor::RouteMonitor(bool watch) {
    if (!watch) return;
    // Made before the first reading, so that no change between the two goes unannounced.
    socket_.reset(::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!socket_) return;
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    if (::bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) socket_.reset();
}

RouteMonitor::~RouteMonitor() = default;

bool RouteMonitor::RouteOffHost() {
    MutexLock lock(mutex_);
    if (ChangeAnnounced() || !known_) {
        answer_ = ReadTables();
        known_ = true;
        ++tableReads_;
    }
    return answer_;
}

std::size_t RouteMonitor::TableReads() const {
    MutexLock lock(mutex_);
    return tableReads_;
}

// Drains the socket; the messages themselves do not matter, only that one came. A lost message
// (ENOBUFS) is a change too, and a socket that fails otherwise is given up for reading every time.
bool RouteMonitor::ChangeAnnounced() {
    if (!socket_) return true;
    bool changed = false;
    char buffer[4096];
    for (;;) {
        const ssize_t size = ::recv(socket_.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
        if (size >= 0 || errno == ENOBUFS) {
            changed = true;
        } else if (errno == EAGAIN) {  // EWOULDBLOCK on Linux
            return changed;
        } else if (errno != EINTR) {
            socket_.reset();
            return true;
        }
    }
}

bool RouteMonitor::ReadTables() const {
    const Descriptor control(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return Ipv4DefaultRoute(control) || Ipv6DefaultRoute(control);
}

}  // namespace velmora
