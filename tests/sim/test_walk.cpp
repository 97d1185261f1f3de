// What an indexed walk of the discovered ports sees while the fabric
// changes: the simulated tree is changed between calls, within a walk and
// between walks, before and after the snapshot's second has passed. The
// snapshot's clock is held still (the library's internal hook) where a
// case must not age it.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "simtest.h"
#include "vsdmgt.h"
#include "vx_sysfs.h"

namespace {

namespace fs = std::filesystem;

// Host 1 with five online FCP targets rport-1:0-0..4 (target ids 0..4, a
// LUN on each even one).
const char* const FIVE = R"json({"name": "five", "adapters": [
  {"id": "tern0", "device_id": "0x2061", "serial_number": "VXT20610001", "functions": [
    {"pci_address": "0000:07:00.0", "port": {"host_no": 1, "remote_ports": [
      {"number": 0, "wwpn": "50:00:00:00:00:00:00:10", "scsi_target_id": 0, "luns": [{"lun": 0}]},
      {"number": 1, "wwpn": "50:00:00:00:00:00:01:10", "scsi_target_id": 1},
      {"number": 2, "wwpn": "50:00:00:00:00:00:02:10", "scsi_target_id": 2, "luns": [{"lun": 0}]},
      {"number": 3, "wwpn": "50:00:00:00:00:00:03:10", "scsi_target_id": 3},
      {"number": 4, "wwpn": "50:00:00:00:00:00:04:10", "scsi_target_id": 4, "luns": [{"lun": 0}]}]}}]}]})json";

// A clock that stands still: however slow the machine, no snapshot ages
// within these cases.
uint64_t still_clock() { return 1'000'000'000'000; }

std::string rport_class(const std::string& name) { return "/sys/class/fc_remote_ports/" + name + "/"; }

void write_attr(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text << "\n";
    ASSERT_TRUE(fs::exists(path)) << path;
}

void set_state(uint32_t number, const char* state) {
    write_attr(rport_class("rport-1:0-" + std::to_string(number)) + "port_state", state);
}

// Removes the port's device directory and its class entry, as the
// transport does when the port's loss timer ends.
void remove_port(uint32_t number) {
    const std::string name = "rport-1:0-" + std::to_string(number);
    const fs::path dev = fs::canonical(rport_class(name)).parent_path().parent_path();
    fs::remove_all(dev);
    fs::remove("/sys/class/fc_remote_ports/" + name);
}

// A new online FCP target port under host 1.
void add_port(uint32_t number, uint32_t tid) {
    const std::string name = "rport-1:0-" + std::to_string(number);
    const fs::path host = fs::canonical("/sys/class/scsi_host/host1/device");
    const fs::path c = host / name / "fc_remote_ports" / name;
    fs::create_directories(c);
    char wwpn[32];
    snprintf(wwpn, sizeof wwpn, "0x500000000000%02x10", number);
    for (const auto& [attr, text] : std::vector<std::pair<const char*, std::string>>{
             {"port_state", "Online"}, {"roles", "FCP Target"}, {"node_name", wwpn}, {"port_name", wwpn},
             {"port_id", "0x010203"}, {"scsi_target_id", std::to_string(tid)}})
        write_attr((c / attr).string(), text);
    fs::create_directory_symlink(c, "/sys/class/fc_remote_ports/" + name);
}

// Opens instance 0 with the still clock in place.
int open_port() {
    vxsysfs_walk_clock = still_clock;
    int h = 0;
    EXPECT_EQ(SDOpenDevice(0, &h), 0u);
    return h;
}

// The last byte but one of the WWPN names the port (50:00:...:0n:10).
int port_at(int h, uint32_t index) {
    DISCPORTPROPERTY d{};
    const uint32_t status = SDGetDiscPortProperty(h, 0, index, 0, &d);
    if (status == SDM_STATUS_DEVICE_NOT_FOUND)
        return -1;
    EXPECT_EQ(status, 0u) << index;
    return d.PortWWN[6];
}

std::vector<int> walk_from(int h, uint32_t first) {
    std::vector<int> seen;
    for (uint32_t i = first;; ++i) {
        const int p = port_at(h, i);
        if (p < 0)
            return seen;
        seen.push_back(p);
    }
}

// Within a walk: a port of the snapshot that goes offline is not returned
// (its index is answered from a new snapshot); one that went offline
// behind the walk's position shifts nothing; a port that appears is left
// to the next walk, which sees it at once.
SIM_TEST(Walk, ChangesWithinAWalk, FIVE) {
    const int h = open_port();
    const struct {
        const char* what;
        void (*change)();
        std::vector<int> rest;  // indexes 2.. after the change
        std::vector<int> next;  // the next walk
    } rows[] = {
        {"the next port goes offline", [] { set_state(2, "Blocked"); }, {3, 4}, {0, 1, 3, 4}},
        {"an earlier port goes offline", [] { set_state(0, "Blocked"); }, {2, 3, 4}, {1, 2, 3, 4}},
        {"an earlier port is removed", [] { remove_port(1); }, {2, 3, 4}, {0, 2, 3, 4}},
        {"a port appears", [] { add_port(7, 7); }, {2, 3, 4}, {0, 1, 2, 3, 4, 7}},
        {"a port stops being a target", [] { write_attr(rport_class("rport-1:0-3") + "roles", "FCP Initiator"); },
         {2, 4}, {0, 1, 2, 4}},
        // Records are read at the call, whatever the snapshot holds.
        {"a port's name changes", [] { write_attr(rport_class("rport-1:0-3") + "port_name", "0x5000000000007710"); },
         {2, 0x77, 4}, {0, 1, 2, 0x77, 4}},
    };
    for (const auto& r : rows) {
        // Each row starts from the five ports.
        for (uint32_t n = 0; n < 5; ++n) {
            if (!fs::exists(rport_class("rport-1:0-" + std::to_string(n))))
                add_port(n, n);
            const std::string c = rport_class("rport-1:0-" + std::to_string(n));
            set_state(n, "Online");
            write_attr(c + "roles", "FCP Target");
            write_attr(c + "port_name", "0x500000000000" + std::string(n < 10 ? "0" : "") + std::to_string(n) + "10");
        }
        if (fs::exists(rport_class("rport-1:0-7")))
            remove_port(7);
        EXPECT_EQ(port_at(h, 0), 0) << r.what;
        EXPECT_EQ(port_at(h, 1), 1) << r.what;
        r.change();
        EXPECT_EQ(walk_from(h, 2), r.rest) << r.what;
        EXPECT_EQ(walk_from(h, 0), r.next) << r.what;
    }
    SDCloseDevice(h);
}

// Across the second, on the library's own clock (the one case that waits a
// real second; the boundary itself is tested on a fake clock): a later
// index sees a port that appeared once the snapshot is a second old, not before.
SIM_TEST(Walk, RealClockSecond, FIVE) {
    int h = 0;
    ASSERT_EQ(SDOpenDevice(0, &h), 0u);
    EXPECT_EQ(port_at(h, 0), 0);
    add_port(10, 10);
    EXPECT_EQ(port_at(h, 2), 2);
    // The simulator shortens sleeps: wait on the clock itself.
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1050);
    while (std::chrono::steady_clock::now() < until)
        usleep(20'000);
    EXPECT_EQ(port_at(h, 2), 10);
    SDCloseDevice(h);
}

// Counts, the port database and the target calls read live: no snapshot
// delays what they report.
SIM_TEST(Walk, CountsDatabaseAndTargetsReadLive, FIVE) {
    const int h = open_port();
    EXPECT_EQ(port_at(h, 0), 0);  // a snapshot exists and is young
    DEVICEPORTPROPERTY p{};
    ASSERT_EQ(SDGetHbaDevicePortProperty(h, 0, &p), 0u);
    EXPECT_EQ(p.DiscPortCount, 5);
    EXPECT_EQ(p.DiscTargetCount, 3);

    write_attr(rport_class("rport-1:0-1") + "roles", "FCP Initiator");
    remove_port(2);  // a target with a LUN
    ASSERT_EQ(SDGetHbaDevicePortProperty(h, 0, &p), 0u);
    EXPECT_EQ(p.DiscPortCount, 3);
    EXPECT_EQ(p.DiscTargetCount, 2);

    DISCTARGETPROPERTY t{};
    EXPECT_EQ(SDGetDiscTargetProperty(h, 0, 2, 0, &t), SDM_STATUS_DEVICE_NOT_FOUND);
    ASSERT_EQ(SDGetDiscTargetProperty(h, 0, 4, 0, &t), 0u);
    EXPECT_EQ(t.PortWWN[6], 4);
    add_port(9, 9);
    // A LUN of target 9 appears under its port (and on the bus).
    const fs::path port = fs::canonical(rport_class("rport-1:0-9")).parent_path().parent_path();
    fs::create_directories(port / "target1:0:9" / "1:0:9:0");
    fs::create_directory_symlink(port / "target1:0:9", "/sys/bus/scsi/devices/target1:0:9");
    ASSERT_EQ(SDGetDiscTargetProperty(h, 0, 9, 0, &t), 0u);
    EXPECT_EQ(t.PortWWN[6], 9);

    set_state(0, "Blocked");
    std::vector<uint8_t> buf(sizeof(DEVICEINFO) + 8 * sizeof(DEVICEINFOENTRY));
    auto* info = reinterpret_cast<DEVICEINFO*>(buf.data());
    ASSERT_EQ(SDGetPortDatabase(h, 0x1, info, static_cast<SD_UINT32>(buf.size())), 0u);
    EXPECT_EQ(info->TotalDevices, 3u) << "online targets: 3, 4 and 9";
    SDCloseDevice(h);
}

}  // namespace
