#pragma once

#include "core/descriptor.h"
#include "core/mutex.h"

#include <cstddef>

namespace velmora {

// The Linux form of the platform's internet connection profile: the machine is connected when the
// kernel has a route off the host, that is a default route, IPv4 or IPv6, that leaves through an
// interface that is up, has a carrier and is not the loopback. (Reject and blackhole routes, like
// the rejecting "::/0" the kernel keeps in every namespace, sit on "lo" or on no device.)
//
// Asking must stay cheap because the sender asks before every hit: the routing tables in /proc are
// read on the first call and afterwards only when the kernel announced a change of links, addresses
// or routes on a non-blocking netlink socket, which costs one system call when nothing changed. No
// thread is needed. Without that socket the tables are read on every call. Safe across threads.
class RouteMonitor {
public:
    // `watch` false: no netlink socket, as when it cannot be made.
    explicit RouteMonitor(bool watch = true);
    ~RouteMonitor();
    RouteMonitor(const RouteMonitor&) = delete;
    RouteMonitor& operator=(const RouteMonitor&) = delete;

    bool RouteOffHost() EXCLUDES(mutex_);
    std::size_t TableReads() const EXCLUDES(mutex_);  // how often the routing tables were read

private:
    bool ChangeAnnounced() REQUIRES(mutex_);
    bool ReadTables() const;

    mutable Mutex mutex_;
    Descriptor socket_ GUARDED_BY(mutex_);
    bool known_ GUARDED_BY(mutex_) = false;
    bool answer_ GUARDED_BY(mutex_) = false;
    std::size_t tableReads_ GUARDED_BY(mutex_) = 0;
};

}  // namespace velmora
