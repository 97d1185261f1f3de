// The driver's endpoints as the interposed libc calls reach them. Every entry
// point follows the kernel's convention: a result >= 0, or -errno. Each one
// journals the request and asks fault_take() before acting.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "desc.h"
#include "optrom.h"
#include "sim.h"

namespace vxsim::drv {

// Binary attributes (attrs.cpp): optrom_ctl, optrom, nvram, vpd.
// Checked at open: the access mode the attribute allows (optrom_ctl is write-only).
int endpoint_attr_open(const Sim& sim, const Desc& d);
ssize_t endpoint_attr_read(const Sim& sim, Desc& d, void* buf, size_t n, uint64_t pos);
ssize_t endpoint_attr_write(const Sim& sim, Desc& d, const void* buf, size_t n, uint64_t pos);
// Where a port's NVRAM or VPD image lives, as its attribute shows it (a
// virtual port shows its physical port's images).
ImageWindow image_window(const Sim& sim, const HostRef& h, AttrKind kind);
// A write into an NVRAM window, after which the driver stores the image's
// checksum (what the firmware checks before it takes the settings).
ssize_t nvram_write(const ImageWindow& w, uint64_t pos, const void* buf, size_t n);

// Extended-ioctl requests on the ioctl, control and older-generation nodes (ioctl.cpp).
long endpoint_ioctl(const Sim& sim, Desc& d, unsigned long request, void* arg);

// SG_IO with an sg_io_v4 header on a bsg node (bsg.cpp).
long endpoint_bsg(const Sim& sim, Desc& d, void* hdr);

// SG_IO with an sg_io_hdr on a LUN's SCSI generic or disk node, and the
// version query SCSI tools make first (sg.cpp).
long endpoint_sg(const Sim& sim, Desc& d, unsigned long request, void* arg);

// Netlink sockets of protocols 20 and 18 (netlink.cpp). Replies and events
// for the caller are datagrams written to d.peer; recv reads them from `fd`,
// the number the caller used (dup'ed numbers share one Desc).
int endpoint_netlink_bind(const Sim& sim, Desc& d, const sockaddr* addr, socklen_t len);
int endpoint_netlink_setsockopt(const Sim& sim, Desc& d, int level, int name, const void* value, socklen_t len);
ssize_t endpoint_netlink_send(const Sim& sim, Desc& d, const msghdr* msg, int flags);
ssize_t endpoint_netlink_recv(const Sim& sim, Desc& d, int fd, msghdr* msg, int flags);

// Copies between the caller's memory and ours without trusting its pointers:
// a bad address gives -EFAULT instead of a crash, as the kernel would.
int copy_from_user(void* dst, const void* user_src, size_t n);
int copy_to_user(void* user_dst, const void* src, size_t n);

}  // namespace vxsim::drv
