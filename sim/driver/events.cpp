#include "events.h"

#include <dirent.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "root.h"
#include "sys.h"
#include "vx_adapters.h"
#include "vxa_nlnk.h"

namespace vxsim::drv {

namespace {

uint64_t read_number(const std::string& path) {
    sys::Fd fd(sys::open(path.c_str(), O_RDONLY));
    std::string text;
    if (!fd.ok() || !sys::read_all(fd.get(), text))
        return 0;
    return std::strtoull(text.c_str(), nullptr, 10);
}

std::optional<SpoolEntry> read_entry(const std::string& dir, const std::string& name) {
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    sys::Fd fd(sys::open((dir + "/" + name).c_str(), O_RDONLY));
    std::string text;
    if (!fd.ok() || !sys::read_all(fd.get(), text))
        return std::nullopt;
    nlohmann::json j = nlohmann::json::parse(text, nullptr, false);
    if (!j.is_object())
        return std::nullopt;
    SpoolEntry e;
    e.seq = std::strtoull(name.c_str(), nullptr, 10);
    e.host_no = j.value("host_no", 0u);
    e.code = j.value("code", 0u);
    e.data = j.value("data", 0u);
    e.fc = j.value("kind", "fc") == "fc";
    return e;
}

std::string entry_name(uint64_t seq) {
    char name[24];
    snprintf(name, sizeof name, "%010llu", static_cast<unsigned long long>(seq));
    return name;
}

}  // namespace

std::vector<SpoolEntry> spool_list(const std::string& root) {
    std::vector<SpoolEntry> out;
    const std::string dir = root::events(root);
    DIR* d = ::opendir(dir.c_str());
    if (!d)
        return out;
    while (dirent* ent = ::readdir(d))
        if (std::optional<SpoolEntry> e = read_entry(dir, ent->d_name))
            out.push_back(*e);
    ::closedir(d);
    std::sort(out.begin(), out.end(), [](const SpoolEntry& a, const SpoolEntry& b) { return a.seq < b.seq; });
    return out;
}

uint64_t spool_seq(const std::string& root) { return read_number(root::events(root) + "/.seq"); }

uint64_t spool_boot(const std::string& root) { return read_number(root::events(root) + "/.boot"); }

std::vector<SpoolEntry> spool_take_driver_events(const std::string& root, uint32_t host, size_t max) {
    std::vector<SpoolEntry> taken;
    for (const SpoolEntry& e : spool_list(root)) {
        if (taken.size() >= max)
            break;
        if (e.fc || e.host_no != host)
            continue;
        // Whoever removes the file has the event.
        const std::string path = root::events(root) + "/" + entry_name(e.seq);
        if (::syscall(SYS_unlinkat, AT_FDCWD, path.c_str(), 0) == 0)
            taken.push_back(e);
    }
    return taken;
}

EXT_ASYNC_EVENT aen_entry(const SpoolEntry& e) {
    EXT_ASYNC_EVENT a{};
    a.AsyncEventCode = e.code;
    a.Payload.Bytes[0] = static_cast<uint8_t>(e.data >> 16);
    a.Payload.Bytes[1] = static_cast<uint8_t>(e.data >> 8);
    a.Payload.Bytes[2] = static_cast<uint8_t>(e.data);
    a.Payload.Bytes[3] = static_cast<uint8_t>(e.data >> 24);
    a.Payload.Words[1] = e.host_no;
    return a;
}

std::vector<uint8_t> fc_event_message(const SpoolEntry& e) {
    nlmsghdr nlh{};
    nlh.nlmsg_len = static_cast<uint32_t>(VX_NL_FC_EVENT_MSG_LEN);
    nlh.nlmsg_type = SCSI_TRANSPORT_MSG;
    fc_nl_event ev{};
    ev.snlh.version = SCSI_NL_VERSION;
    ev.snlh.transport = SCSI_NL_TRANSPORT_FC;
    ev.snlh.magic = SCSI_NL_MAGIC;
    ev.snlh.msgtype = FC_NL_ASYNC_EVENT;
    ev.snlh.msglen = static_cast<uint16_t>(sizeof ev);
    ev.seconds = static_cast<uint64_t>(time(nullptr));
    ev.vendor_id = 0x0100000000000000ull | VX_PCI_VENDOR_ID;
    ev.host_no = static_cast<uint16_t>(e.host_no);
    ev.event_datalen = sizeof ev.event_data;
    ev.event_num = static_cast<uint32_t>(e.seq);
    ev.event_code = e.code;
    ev.event_data = e.data;
    std::vector<uint8_t> msg(VX_NL_FC_EVENT_MSG_LEN);
    std::memcpy(msg.data(), &nlh, sizeof nlh);
    std::memcpy(msg.data() + NLMSG_HDRLEN, &ev, sizeof ev);
    return msg;
}

void fc_join(FcCursor& c, const std::string& root) {
    if (c.joined)
        return;
    c.joined = true;
    c.next = spool_seq(root) + 1;
}

std::vector<SpoolEntry> fc_due(FcCursor& c, const std::string& root) {
    std::vector<SpoolEntry> due;
    if (!c.joined)
        return due;
    const uint64_t boot = spool_boot(root);
    for (const SpoolEntry& e : spool_list(root)) {
        if (!e.fc)
            continue;
        if (e.seq <= boot ? e.seq >= c.boot_next : e.seq >= c.next)
            due.push_back(e);
    }
    for (const SpoolEntry& e : due) {
        if (e.seq <= boot)
            c.boot_next = e.seq + 1;
        else
            c.next = e.seq + 1;
    }
    return due;
}

}  // namespace vxsim::drv
