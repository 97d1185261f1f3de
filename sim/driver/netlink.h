// The driver's vendor netlink channel, as a function of the request: the
// netlink endpoint (netlink.cpp) moves the bytes, tests call it in-process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "journal.h"
#include "sim.h"
#include "vxa_nlnk.h"

namespace vxsim::drv {

struct VendorAnswer {
    std::optional<uint32_t> cmd;   // the request's command, when it was a vendor message
    std::optional<uint32_t> host;  // its host number
    std::vector<uint8_t> reply;    // empty: nobody answers (not a vendor message)
    JournalFields journal = JournalFields::object();
};

// The driver's reply to one vendor request of `len` bytes: the request's
// headers, the vendor record with `error` (0, 9 for an unknown host, 20 for
// a command the host does not take, 6 for bad parameters) and the command's
// answer. The event log (command 4) takes the host's driver events from the
// spool.
VendorAnswer vendor_answer(const Sim& sim, const uint8_t* msg, size_t len);

}  // namespace vxsim::drv
