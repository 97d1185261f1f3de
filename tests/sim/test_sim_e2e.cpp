// The simulator itself, end to end: what programs see inside a simulated
// host (tools, the tree's layout, device numbers, state files, the
// subcommands) and what the real host sees afterwards (nothing). What the
// library reads from the attributes is tested through the library.
#include <dirent.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>

#include "fsutil.h"
#include "root.h"
#include "simtest.h"
#include "state.h"

namespace {

using namespace vxsim;
using namespace vxsim::test;

using Attrs = std::map<std::string, std::string>;

// systool -v output: the attributes of each class device, keyed by the last
// component of its path ("host5", "rport-5:0-2").
std::map<std::string, Attrs> parse_systool(const std::string& text) {
    std::map<std::string, Attrs> out;
    std::string current;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        line.erase(0, line.find_first_not_of(' '));
        const size_t q = line.find('"');
        const std::string value = q == std::string::npos ? "" : line.substr(q + 1, line.rfind('"') - q - 1);
        if (line.starts_with("Class Device path = "))
            out[current = value.substr(value.find_last_of('/') + 1)];
        else if (line.starts_with("Device = ") || line.starts_with("Class Device = "))
            current.clear();  // the parent device's attributes follow
        else if (!current.empty() && line.find(" = ") != std::string::npos)
            out[current][line.substr(0, line.find(' '))] = value;
    }
    return out;
}

uint64_t hex(const std::string& s) { return std::strtoull(s.c_str(), nullptr, 16); }

std::string sys_text(const std::string& path) {
    const std::string t = read_text("/sys/" + path);
    return t.substr(0, t.find_last_not_of('\n') + 1);
}

struct HostRef {
    const PciFunction* function;
    const HostPort* port;
};

std::vector<HostRef> hosts_of(const Scenario& s) {
    std::vector<HostRef> out;
    for (const Adapter& a : s.adapters)
        for (const PciFunction& f : a.functions) {
            out.push_back({&f, &f.port});
            for (const HostPort& v : f.vports)
                out.push_back({&f, &v});
        }
    return out;
}

std::string rport_name(uint32_t host, const RemotePort& r) {
    return "rport-" + std::to_string(host) + ":" + std::to_string(r.channel) + "-" + std::to_string(r.number);
}

std::set<std::string> list_dir(const std::string& dir) {
    std::set<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d))
            if (e->d_name[0] != '.')
                names.insert(e->d_name);
        ::closedir(d);
    }
    return names;
}

// Outside tests need what `vxsim run` needs.
bool simulator_usable() {
    const char* require = std::getenv("VXSIM_REQUIRE");
    EXPECT_TRUE(::geteuid() == 0 || !require || std::string(require) != "1") << "VXSIM_REQUIRE=1 but not root";
    return ::geteuid() == 0;
}

// ---------------------------------------------------------------- tools inside the host

// Names and addresses compared as numbers, whatever their spelling.
SIM_TEST(SimTools, SystoolShowsEveryHostAndRemotePort, "default.json") {
    std::map<std::string, std::map<std::string, Attrs>> want;  // class -> device -> attributes
    auto num = [](uint64_t v) { return std::to_string(v); };
    std::vector<HostRef> hosts = hosts_of(scenario());
    ASSERT_EQ(hosts.size(), 4u);
    for (const HostRef& h : hosts) {
        const HostPort& p = *h.port;
        const std::string name = "host" + std::to_string(p.host_no);
        want["fc_host"][name] = {{"port_name", num(p.wwpn)}, {"node_name", num(p.wwnn)},
                                 {"port_id", num(p.port_id)}, {"fabric_name", num(p.fabric_name)},
                                 {"speed", p.speed},          {"port_state", p.port_state},
                                 {"port_type", p.port_type}};
        for (const auto& [counter, value] : p.stats.values)  // not shown by systool
            EXPECT_EQ(hex(sys_text("class/fc_host/" + name + "/statistics/" + counter)), value) << counter;
        for (const RemotePort& r : p.remote_ports)
            want["fc_remote_ports"][rport_name(p.host_no, r)] = {
                {"port_name", num(r.wwpn)}, {"node_name", num(r.wwnn)}, {"port_id", num(r.port_id)},
                {"roles", r.roles},         {"port_state", r.state},
                {"scsi_target_id", std::to_string(r.scsi_target_id)}};
    }
    for (const auto& [cls, devices] : want) {
        Output out = run({"systool", "-c", cls, "-v"});
        ASSERT_EQ(out.status, 0) << out.text;
        std::map<std::string, Attrs> shown = parse_systool(out.text);
        EXPECT_EQ(shown.size(), devices.size()) << out.text;
        for (const auto& [name, attrs] : devices)
            for (const auto& [key, value] : attrs) {
                const std::string& got = shown[name][key];
                const bool number = key.ends_with("_name") || key == "port_id";
                EXPECT_EQ(number ? num(hex(got)) : got, value) << name << " " << key;
            }
    }
}

// lsscsi finds each LUN's FC names through the fc_transport class and its
// block and generic nodes; disks have their scsi_disk class entry.
SIM_TEST(SimTools, LsscsiShowsEveryLunWithItsTransportAndNodes, "single.json") {
    Output transport = run({"lsscsi", "-t"}), generic = run({"lsscsi", "-g"});
    ASSERT_EQ(transport.status, 0) << transport.text;
    ASSERT_EQ(generic.status, 0) << generic.text;
    size_t luns = 0, disks = 0;
    for (const HostRef& h : hosts_of(scenario()))
        for (const RemotePort& r : h.port->remote_ports) {
            const std::string fc = "fc:" + wwn_hex(r.wwpn) + "," + port_id_hex(r.port_id);
            size_t shown = 0;
            for (size_t at = transport.text.find(fc); at != std::string::npos; at = transport.text.find(fc, at + 1))
                ++shown;
            EXPECT_EQ(shown, r.luns.size()) << fc << "\n" << transport.text;
            luns += r.luns.size();
            for (const Lun& l : r.luns)
                disks += l.peripheral_type == 0;
        }
    ASSERT_GT(luns, 0u);
    const auto lines = [](const std::string& text, const std::string& word) {
        size_t n = 0;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);)
            n += line.find(word) != std::string::npos;
        return n;
    };
    EXPECT_EQ(lines(generic.text, "/dev/sg"), luns) << generic.text;
    EXPECT_EQ(lines(generic.text, "/dev/sd"), disks) << generic.text;
    EXPECT_EQ(list_dir("/sys/class/scsi_disk").size(), disks);
}

// (libsysfs reads the same tree in every discovery of the library.)
SIM_TEST(SimTools, SystoolFindsAdaptersThroughTheirDriver, "default.json") {
    Output out = run({"systool", "-b", "pci", "-D"});
    EXPECT_NE(out.text.find("Driver = \"vxfcdrv\""), std::string::npos) << out.text;
    for (const Adapter& a : scenario().adapters)
        for (const PciFunction& f : a.functions)
            EXPECT_NE(out.text.find(f.pci_address), std::string::npos) << f.pci_address;
}

// ---------------------------------------------------------------- layout

SIM_TEST(SimTree, EveryLinkIsRelativeAndResolvesInsideSys, "default.json") {
    EXPECT_GT(std::atoi(run({"sh", "-c", "find /sys -type l | wc -l"}).text.c_str()), 50);
    EXPECT_EQ(run({"find", "/sys", "-type", "l", "-lname", "/*"}).text, "") << "absolute links";
    EXPECT_EQ(run({"sh", "-c", "find /sys -type l -exec realpath -e {} + | grep -cv '^/sys/'"}).text, "0\n");
}

// Every host and remote port of a large host has a bsg entry with a number
// in the simulator's reserved majors (past the first eight), distinct, in the
// old 8-bit-minor range, mapped to its endpoint.
SIM_TEST(SimTree, LargeHostGivesEveryPortABsgNumber, "large.json") {
    size_t rports = 0;
    for (const HostRef& h : hosts_of(scenario()))
        rports += h.port->remote_ports.size();
    EXPECT_EQ(list_dir("/sys/class/fc_host").size(), 64u);
    EXPECT_EQ(list_dir("/sys/class/fc_remote_ports").size(), rports);
    std::set<std::string> bsg = list_dir("/sys/class/bsg"), numbers;
    EXPECT_EQ(bsg.size(), 64 + rports);
    for (const HostRef& h : hosts_of(scenario()))
        EXPECT_TRUE(bsg.count("fc_host" + std::to_string(h.port->host_no)));
    const nlohmann::json devices = nlohmann::json::parse(read_text(root::devices(sim_root())));
    for (const std::string& name : bsg) {
        const std::string dev = sys_text("class/bsg/" + name + "/dev");
        unsigned major = 0, minor = 0;
        EXPECT_TRUE(std::sscanf(dev.c_str(), "%u:%u", &major, &minor) == 2 && root::is_bsg_major(major) &&
                    minor < 256 && numbers.insert(dev).second)
            << name << " " << dev;
        const nlohmann::json d = devices.value(dev, nlohmann::json::object());
        const bool host = name.starts_with("fc_host");
        EXPECT_EQ(d.value("kind", ""), host ? "bsg_host" : "bsg_rport") << name;
        EXPECT_EQ(d.value("host", 0ul), std::stoul(name.substr(host ? 7 : 6))) << name;
        EXPECT_EQ(d.value("rport", name), name);
    }
}

// Scenario switches the library's own tests do not cover: the compatibility
// module, a PCI domain other than 0, armed faults and queued events, the
// effective user.
constexpr const char* OPTIONS = R"({"name": "options", "options": {"vioctlmod": true, "euid": 500},
  "adapters": [{"id": "cna", "device_id": "0x2070", "serial_number": "VXC0000002",
                "functions": [{"pci_address": "0001:0a:00.1", "port": {"host_no": 9}}]}],
  "faults": [{"endpoint": "optrom_ctl", "match": "1*", "action": "ebusy", "count": 2}],
  "events": [{"host_no": 9, "code": 3, "data": 17}, {"host_no": 4, "code": 1}]})";

SIM_TEST(SimOptions, SwitchesShapeTheHost, OPTIONS) {
    EXPECT_TRUE(fs::is_dir("/sys/module/vioctlmod"));
    EXPECT_TRUE(fs::real_path("/sys/class/fc_host/host9").starts_with("/sys/devices/pci0001:00/"));
    Output faults = run_vxsim({"fault", "list", "--json"});
    ASSERT_EQ(faults.status, 0) << faults.text;
    EXPECT_EQ(nlohmann::json::parse(faults.text),
              nlohmann::json::parse(R"([{"endpoint":"optrom_ctl","match":"1*","action":"ebusy","count":2}])"));
    std::vector<nlohmann::json> spool;  // in order
    for (const std::string& e : list_dir(root::events(sim_root())))
        spool.push_back(nlohmann::json::parse(read_text(root::events(sim_root()) + "/" + e)));
    ASSERT_EQ(spool.size(), 2u);
    EXPECT_EQ(spool[0], nlohmann::json::parse(R"({"host_no":9,"code":3,"data":17,"kind":"fc"})"));
    EXPECT_EQ(spool[1]["host_no"], 4);
    EXPECT_STREQ(std::getenv("VXSIM_EUID"), "500");
    EXPECT_EQ(::geteuid(), 500u);
}

// ---------------------------------------------------------------- the runner, inside

SIM_TEST(SimRunner, CommandGetsAPrivateHost, "single.json") {
    // Files written to /etc and /usr/lib stay in the root (tested from outside).
    // Fresh /tmp, holding only the top-level entries of the root and of this
    // program when they live there, and fresh /dev.
    std::set<std::string> kept;
    for (const std::string& path : {sim_root(), fs::real_path("/proc/self/exe")})
        if (path.starts_with("/tmp/"))
            kept.insert(path.substr(5, path.find('/', 5) - 5));
    EXPECT_EQ(list_dir("/tmp"), kept);
    for (const char* node : {"null", "zero", "urandom"})
        EXPECT_TRUE(fs::exists(std::string("/dev/") + node)) << node;
    // The LUNs' nodes with the simulator's numbers, none of the real host's.
    struct stat st {};
    ASSERT_EQ(::stat("/dev/sdb", &st), 0);
    EXPECT_TRUE(S_ISBLK(st.st_mode) && major(st.st_rdev) == root::MAJOR_DISK && minor(st.st_rdev) == 1);
    ASSERT_EQ(::stat("/dev/sg1", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode) && major(st.st_rdev) == root::MAJOR_SG && minor(st.st_rdev) == 1);
    EXPECT_FALSE(fs::exists("/dev/sdc"));
    EXPECT_TRUE(fs::is_dir("/dev/shm"));
    // Fixed System V keys are free: the IPC namespace is the host's own.
    int id = ::semget(829, 1, IPC_CREAT | IPC_EXCL | 0600);
    EXPECT_GE(id, 0);
    if (id >= 0)
        ::semctl(id, 0, IPC_RMID);
    std::string preload = std::getenv("LD_PRELOAD") ? std::getenv("LD_PRELOAD") : "";
    EXPECT_TRUE(preload.ends_with("/libvxsim_driver.so")) << preload;
    EXPECT_STREQ(std::getenv("VXSIM_SLEEP_SCALE"), "0.01");
}

// ---------------------------------------------------------------- subcommands

SIM_TEST(SimCommands, FaultsAreArmedListedAndCleared, "single.json") {
    struct Case {
        std::vector<std::string> args;
        const char* error;  // nullptr: accepted
    } cases[] = {
        {{"--endpoint", "optrom_ctl", "--action", "ebusy", "--count", "2"}, nullptr},
        {{"--endpoint", "ioctl", "--match", "0xc0747900", "--action", "status:0x1d", "--count", "-1"}, nullptr},
        {{"--endpoint", "nvram", "--action", "eio", "--count", "010"}, nullptr},  // ten, not octal eight
        {{"--endpoint", "bsg", "--action", "explode"}, "action"},  // the actions' spelling is tested with the driver
        {{"--action", "eio"}, "--endpoint"},
        {{"--endpoint", "flash", "--action", "eio"}, "vxsim: unknown fault endpoint \"flash\" (optrom_ctl, optrom,"},
        {{"--endpoint", "vpd", "--action", "eio", "--count", "0"}, "vxsim: --count takes -1 (always) or a number"},
        {{"--endpoint", "vpd", "--action", "status:1d"}, "action"},  // hexadecimal needs its 0x
    };
    for (const Case& c : cases) {
        std::vector<std::string> argv{"fault", "add"};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        Output o = run_vxsim(argv);
        EXPECT_EQ(o.status == 0, c.error == nullptr) << c.args[1] << " " << o.text;
        if (c.error) {
            EXPECT_NE(o.text.find(c.error), std::string::npos) << o.text;
        }
    }
    arm_fault("vpd", "", "short");
    Output list = run_vxsim({"fault", "list", "--json"});
    ASSERT_EQ(list.status, 0) << list.text;
    nlohmann::json faults = nlohmann::json::parse(list.text);
    ASSERT_EQ(faults.size(), 4u);
    EXPECT_EQ((std::vector<nlohmann::json>{faults[0]["count"], faults[1]["match"], faults[1]["count"],
                                           faults[2]["count"], faults[3]["endpoint"], faults[3]["count"]}),
              (std::vector<nlohmann::json>{2, "0xc0747900", -1, 10, "vpd", 1}));
    EXPECT_NE(run_vxsim({"fault", "list"}).text.find("always"), std::string::npos);
    ASSERT_EQ(run_vxsim({"fault", "clear"}).status, 0);
    EXPECT_EQ(nlohmann::json::parse(run_vxsim({"fault", "list", "--json"}).text), nlohmann::json::array());
}

// Events only for hosts the scenario has (another would wait in the spool
// forever); numbers are decimal unless prefixed.
SIM_TEST(SimCommands, EventsNameAHostOfTheScenario, "single.json") {
    const std::pair<std::vector<std::string>, const char*> cases[] = {
        {{"--host", "1", "--code", "010"}, nullptr},
        {{"--host", "0x1", "--code", "0x8015", "--data", "7"}, nullptr},
        {{"--host", "7", "--code", "2"}, "vxsim: the sim root has no SCSI host 7 (hosts: 1)"},
        {{"--host", "01x", "--code", "2"}, "--host takes a number"},
        {{"--host", "-1", "--code", "2"}, "--host takes a number"},
        {{"--host", "1", "--code", "2x"}, "--code and --data take numbers"},
    };
    for (const auto& [args, error] : cases) {
        std::vector<std::string> argv{"event"};
        argv.insert(argv.end(), args.begin(), args.end());
        Output o = run_vxsim(argv);
        EXPECT_EQ(o.status == 0, error == nullptr) << args[1] << " " << o.text;
        if (error) {
            EXPECT_NE(o.text.find(error), std::string::npos) << o.text;
        }
    }
    std::vector<std::pair<std::string, state::SpoolEvent>> queued;
    std::string err;
    ASSERT_TRUE(state::list_events(sim_root(), queued, err)) << err;
    ASSERT_EQ(queued.size(), 2u);
    EXPECT_EQ((std::vector<uint32_t>{queued[0].second.code, queued[1].second.code, queued[1].second.data}),
              (std::vector<uint32_t>{10, 0x8015, 7}));
}

// ---------------------------------------------------------------- the runner, from outside

// Without root vxsim takes a user namespace of its own, as `unshare -Urm`
// would: the host is there, only the LUNs' device nodes cannot be made.
TEST(SimRunnerOutside, RunsWithoutRootInAUserNamespace) {
    if (::geteuid() != 0 || !fs::exists("/usr/bin/setpriv"))
        GTEST_SKIP() << "needs root and setpriv to drop it";
    Output o = run({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--", vxsim_binary(), "run",
                    "--scenario", scenario_dir() + "/single.json", "--", "sh", "-c",
                    "id -u; ls /sys/class/fc_host; test -e /dev/sg0 || echo no-sg"});
    EXPECT_EQ(o.status, 0) << o.text;
    EXPECT_NE(o.text.find("0\nhost1\nno-sg\n"), std::string::npos) << o.text;
    EXPECT_NE(o.text.find("vxsim: without root no device nodes can be made"), std::string::npos) << o.text;
}

TEST(SimRunnerOutside, ExitStatusOfTheCommandComesBack) {
    if (!simulator_usable())
        GTEST_SKIP() << "needs root";
    for (auto [script, status] : {std::pair{"true", 0}, {"exit 7", 7}, {"kill -TERM $$", 128 + 15}}) {
        Output o = run_vxsim({"run", "--scenario", "single", "--", "sh", "-c", script});
        EXPECT_EQ(o.status, status) << script << ": " << o.text;
    }
    Output o = run_vxsim({"run", "--scenario", "single", "--", "/nonexistent/program"});
    EXPECT_EQ(o.status, 127);
    EXPECT_NE(o.text.find("vxsim: cannot run /nonexistent/program"), std::string::npos) << o.text;
    o = run_vxsim({"run", "--scenario", "no-such-scenario", "--", "true"});
    EXPECT_EQ(o.status, 2);
    EXPECT_TRUE(o.text.starts_with("vxsim: ")) << o.text;
}

TEST(SimRunnerOutside, CommandEnvironmentCarriesTheEmulation) {
    if (!simulator_usable())
        GTEST_SKIP() << "needs root";
    const std::string other = fs::real_path("/usr/lib/x86_64-linux-gnu/libsysfs.so.2");
    if (other.empty())
        GTEST_SKIP() << "no library to preload";
    // `env` inside, run by `env <argv> --scenario single -- env`.
    auto inside = [](std::vector<std::string> argv) {
        argv.insert(argv.begin(), "env");
        argv.insert(argv.end(), {"--scenario", "single", "--", "env"});
        Output o = run(argv);
        EXPECT_EQ(o.status, 0) << o.text;
        return "\n" + o.text;
    };
    // The caller's preload stays ahead of the emulation's; the options reach
    // the command. (vxsim itself may carry a sanitizer runtime that would
    // object to a preload ahead of it.)
    std::string env = inside({"ASAN_OPTIONS=verify_asan_link_order=0", "LD_PRELOAD=" + other, vxsim_binary(), "run",
                              "--real-sleep", "--euid", "42"});
    for (const std::string& w : {"\nLD_PRELOAD=" + other + ":", std::string("/libvxsim_driver.so\n"),
                                 std::string("\nVXSIM_EUID=42\n"), std::string("\nVXSIM_ROOT=/")})
        EXPECT_NE(env.find(w), std::string::npos) << w << " in:" << env;
    EXPECT_EQ(env.find("\nVXSIM_SLEEP_SCALE="), std::string::npos) << env;
    // A library named to go first goes ahead of everything; the sanitizer
    // setting the preload needs is added; the sleep scale defaults.
    env = inside({"ASAN_OPTIONS=detect_leaks=1", "VXSIM_SLEEP_SCALE=", "LD_PRELOAD=", "VXSIM_PRELOAD_FIRST=" + other,
                  vxsim_binary(), "run"});
    for (const std::string& w : {"\nLD_PRELOAD=" + other + ":", std::string("\nVXSIM_SLEEP_SCALE=0.01\n"),
                                 std::string("\nASAN_OPTIONS=detect_leaks=1:verify_asan_link_order=0\n")})
        EXPECT_NE(env.find(w), std::string::npos) << w << " in:" << env;
    EXPECT_EQ(env.find("\nVXSIM_EUID="), std::string::npos) << env;
}

// Whatever the command does, the real host stays as it was: no files in
// /tmp, /dev, /etc, /usr/lib, no semaphores, no mounts, no sim root.
TEST(SimRunnerOutside, LeavesTheRealHostUnchanged) {
    if (!simulator_usable())
        GTEST_SKIP() << "needs root";
    const std::string tag = "vxsim-e2e-" + std::to_string(::getpid());
    const std::vector<std::string> paths{"/tmp/" + tag, "/dev/" + tag, "/dev/shm/" + tag, "/etc/" + tag,
                                         "/usr/lib/" + tag};
    for (const std::string& p : paths)
        ASSERT_FALSE(fs::exists(p)) << p;
    const std::string mounts = "cut -d' ' -f5 /proc/self/mountinfo | sort";
    const std::string keys = "awk 'NR > 1 {print $1}' /proc/sysvipc/sem";
    const std::string mounts_before = run({"sh", "-c", mounts}).text, keys_before = "\n" + run({"sh", "-c", keys}).text;

    std::string script = "echo ROOT=$VXSIM_ROOT; ipcmk -S 1 >/dev/null && echo KEY=$(" + keys + ")";
    for (const std::string& p : paths)
        script += " && touch " + p;
    Output o = run_vxsim({"run", "--scenario", "single", "--", "sh", "-c", script + " && mount -t tmpfs none /mnt"});
    ASSERT_EQ(o.status, 0) << o.text;
    auto said = [&](const std::string& name) {  // NAME=value printed inside
        const size_t at = o.text.find(name + "="), from = at + name.size() + 1;
        return at == std::string::npos ? std::string() : o.text.substr(from, o.text.find('\n', at) - from);
    };
    for (const std::string& p : paths)
        EXPECT_FALSE(fs::exists(p)) << p;
    // One semaphore inside (a namespace of its own), which must not exist out here.
    ASSERT_TRUE(!said("ROOT").empty() && !said("KEY").empty() && said("KEY").find(' ') == std::string::npos) << o.text;
    EXPECT_FALSE(fs::exists(said("ROOT"))) << said("ROOT");
    EXPECT_EQ(run({"sh", "-c", mounts}).text, mounts_before);
    const std::string key = "\n" + said("KEY") + "\n";
    EXPECT_EQ(("\n" + run({"sh", "-c", keys}).text).find(key), keys_before.find(key)) << key;
}

// Hosts whose mounts propagate (systemd makes / shared) must not see the
// simulated host's mounts either; reproduced in a throwaway namespace.
TEST(SimRunnerOutside, MountsDoNotPropagateFromASharedRoot) {
    if (!simulator_usable())
        GTEST_SKIP() << "needs root";
    const std::string list = "cut -d' ' -f5 /proc/self/mountinfo | sort";
    Output o = run({"unshare", "-m", "--propagation", "unchanged", "sh", "-c",
                    "mount --make-rshared / && a=$(" + list + ") && " + vxsim_binary() +
                        " run --scenario single -- true && b=$(" + list +
                        ") && if [ \"$a\" = \"$b\" ]; then echo same; else echo \"$b\"; fi"});
    ASSERT_EQ(o.status, 0) << o.text;
    EXPECT_EQ(o.text, "same\n");
}

// A root built with `vxsim tree` is kept and reused by `vxsim run --root`,
// and the subcommands act on it from outside.
TEST(SimRunnerOutside, BuiltRootIsReusedAndKept) {
    if (!simulator_usable())
        GTEST_SKIP() << "needs root";
    std::string tmpl = ::testing::TempDir() + "vxsim-e2e-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
    const std::string dir = tmpl, r = dir + "/root";
    struct remove_at_end {  // however the test ends
        std::string path;
        ~remove_at_end() {
            std::string ignored;
            fs::remove_tree(path, ignored);
        }
    } cleanup{dir};

    Output built = run_vxsim({"tree", "--scenario", "single", "--root", r});
    ASSERT_EQ(built.status, 0) << built.text;
    EXPECT_NE(built.text.find("1 hosts, 1 remote ports"), std::string::npos) << built.text;
    EXPECT_NE(run_vxsim({"tree", "--scenario", "single", "--root", r}).status, 0);  // not over an existing root
    ASSERT_EQ(run_vxsim({"event", "--root", r, "--host", "1", "--code", "2"}).status, 0);
    ASSERT_EQ(run_vxsim({"fault", "--root", r, "add", "--endpoint", "nvram", "--action", "eio"}).status, 0);

    Output o = run_vxsim({"run", "--root", r, "--", "sh", "-c",
                          "cat /sys/class/fc_host/host1/port_name; ls $VXSIM_ROOT/state/events; touch /etc/vxsim-e2e"});
    ASSERT_EQ(o.status, 0) << o.text;
    EXPECT_NE(o.text.find("0x2100001d5a025001"), std::string::npos) << o.text;
    EXPECT_NE(o.text.find("0000000001"), std::string::npos) << o.text;
    EXPECT_TRUE(fs::exists(r + "/etc/vxsim-e2e"));
    EXPECT_FALSE(fs::exists("/etc/vxsim-e2e"));
    EXPECT_NE(run_vxsim({"fault", "--root", r, "list"}).text.find("nvram"), std::string::npos);
    // A root named for run alone is built there and kept too.
    EXPECT_EQ(run_vxsim({"run", "--root", dir + "/fresh", "--scenario", "single", "--", "true"}).status, 0);
    EXPECT_TRUE(fs::exists(dir + "/fresh/sys/class/fc_host/host1"));
}

}  // namespace
