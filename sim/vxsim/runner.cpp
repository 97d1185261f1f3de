// The runner keeps the real host untouched: everything the command mounts,
// creates or locks lives in namespaces that die with it. The parent stays in
// the host's namespaces and only waits, forwards signals and cleans up.
#include "runner.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "fsutil.h"
#include "root.h"
#include "tree.h"

namespace vxsim {
namespace {

volatile sig_atomic_t g_child = 0;

void forward_signal(int sig) {
    if (g_child > 0)
        ::kill(g_child, sig);
}

// Whether /proc/self/mounts lists a sysfs at /sys. libsysfs looks there for
// where sysfs is, so a bare chroot without one would never see the tree.
bool sysfs_at_sys() {
    std::string mounts, error;
    if (!fs::read_file("/proc/self/mounts", mounts, error))
        return false;
    size_t pos = 0;
    while (pos < mounts.size()) {
        size_t end = mounts.find('\n', pos);
        if (end == std::string::npos)
            end = mounts.size();
        std::string_view line(mounts.data() + pos, end - pos);
        const size_t dir = line.find(' ');
        if (dir != std::string_view::npos && line.substr(dir + 1).starts_with("/sys sysfs "))
            return true;
        pos = end + 1;
    }
    return false;
}

bool under(const std::string& path, std::string_view dir) {
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == '/';
}

std::string dirname_of(const std::string& path) {
    size_t slash = path.find_last_of('/');
    return slash == std::string::npos || slash == 0 ? std::string("/") : path.substr(0, slash);
}

// Everything the child does between fork and exec. Failures are written to
// `report` as one line and end the child; success ends in exec.
class Setup {
public:
    Setup(const RunOptions& o, int report) : o_(o), report_(report) {}

    [[noreturn]] void run(char** env) {
        if (o_.user_namespace)
            enter_user_namespace();
        else if (::unshare(CLONE_NEWNS | CLONE_NEWIPC) != 0)
            fail(std::string(NEEDS_ROOT) + ": unshare: " + std::strerror(errno));
        // Before anything else: with shared propagation every mount below
        // would appear on the real host.
        if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            fail(std::string(NEEDS_ROOT) + ": making / private: " + std::strerror(errno));
        if (o_.build) {
            mount_or_fail("tmpfs", o_.root, "tmpfs", MS_NOSUID, "mode=700");
            TreeStats stats;
            std::string error;
            if (!build_root(*o_.build, o_.root, stats, error))
                fail(error);
            if (stats.rports_without_bsg)
                report(std::to_string(stats.rports_without_bsg) +
                       " remote ports got no bsg node (the bsg device numbers ran out)");
        }

        // Directories the command needs that the fresh /tmp or /dev would hide:
        // opened now, bound back at their own paths later. Opened inside the
        // new namespace: a bind source must be a mount of the caller's own.
        std::vector<std::string> keep{o_.root, dirname_of(o_.preload)};
        if (o_.command[0].find('/') != std::string::npos) {
            std::string exe = fs::real_path(o_.command[0]);
            if (!exe.empty())
                keep.push_back(dirname_of(exe));
        }
        // The whole top-level entry is kept, not just the directory: a build
        // tree under /tmp also holds the libraries the command loads.
        std::vector<std::string> tops;
        for (const std::string& k : keep)
            for (const char* hidden : {"/tmp", "/dev"})
                if (under(k, hidden)) {
                    const std::string top = k.substr(0, k.find('/', std::string_view(hidden).size() + 1));
                    if (std::find(tops.begin(), tops.end(), top) == tops.end())
                        tops.push_back(top);
                }
        for (const std::string& top : tops)
            keep_.push_back({top, open_path(top, O_DIRECTORY)});
        plan_scsi_nodes();
        static const char* const nodes[] = {"null", "zero", "full", "random", "urandom", "tty"};
        for (const char* n : nodes) {
            // A node the host lacks (no /dev/tty in some containers) is left out.
            int fd = ::open((std::string("/dev/") + n).c_str(), O_PATH | O_CLOEXEC);
            if (fd >= 0)
                nodes_.push_back({n, fd});
        }

        if (!sysfs_at_sys() && ::mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) != 0)
            report("no sysfs at /sys and none can be mounted (" + std::string(std::strerror(errno)) +
                   "): libraries that look for sysfs in /proc/mounts will not find the simulated tree");
        mount_or_fail(root::sys(o_.root), "/sys", nullptr, MS_BIND, nullptr);
        overlay("/etc", root::etc_upper(o_.root), root::overlay_work(o_.root) + "/etc");
        {
            // The driver's options file goes here; the host may lack the directory.
            std::string err;
            if (!fs::make_dirs("/etc/modprobe.d", err))
                fail("cannot set up the simulated host: " + err);
        }
        overlay("/usr/lib", root::usrlib_upper(o_.root), root::overlay_work(o_.root) + "/usr-lib");
        mount_or_fail("tmpfs", "/tmp", "tmpfs", MS_NOSUID, "mode=1777");
        mount_or_fail("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=755");
        populate_dev();
        for (const auto& [path, fd] : keep_) {
            std::string err;
            if (!fs::make_dirs(path, err))
                fail("cannot set up the simulated host: " + err);
            mount_or_fail(fd_path(fd), path, nullptr, MS_BIND | MS_REC, nullptr);
        }
        for (const auto& [path, fd] : keep_)
            ::close(fd);

        std::vector<std::string> envs = sim_environment(o_, env);
        std::vector<char*> envp, argv;
        for (std::string& e : envs)
            envp.push_back(e.data());
        envp.push_back(nullptr);
        std::vector<std::string> args = o_.command;
        for (std::string& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        ::execvpe(argv[0], argv.data(), envp.data());
        int err = errno;
        report("cannot run " + o_.command[0] + ": " + std::strerror(err));
        ::_exit(err == ENOENT ? 127 : 126);
    }

private:
    void report(const std::string& line) {
        std::string text = line + "\n";
        ssize_t n = ::write(report_, text.data(), text.size());
        (void)n;
    }

    [[noreturn]] void fail(const std::string& line) {
        report(line);
        ::_exit(2);
    }

    static std::string fd_path(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

    // The caller becomes root of a user namespace of its own, which owns the
    // new mount and IPC namespaces: what `unshare -Urm` does.
    void enter_user_namespace() {
        const uid_t uid = ::getuid();
        const gid_t gid = ::getgid();
        if (::unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWIPC) != 0)
            fail(std::string(NEEDS_ROOT) + ": unshare of a user namespace: " + std::strerror(errno));
        const std::pair<std::string, std::string> maps[] = {
            {"/proc/self/setgroups", "deny"},
            {"/proc/self/uid_map", "0 " + std::to_string(uid) + " 1"},
            {"/proc/self/gid_map", "0 " + std::to_string(gid) + " 1"},
        };
        for (const auto& [path, text] : maps) {
            fs::Fd fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
            if (!fd.ok() || ::write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
                fail(std::string(NEEDS_ROOT) + ": " + fs::errno_text("write", path));
        }
    }

    int open_path(const std::string& path, int flags) {
        int fd = ::open(path.c_str(), O_PATH | O_CLOEXEC | flags);
        if (fd < 0)
            fail("cannot set up the simulated host: " + fs::errno_text("open", path));
        return fd;
    }

    void mount_or_fail(const std::string& src, const std::string& target, const char* type, unsigned long flags,
                       const char* data) {
        if (::mount(src.c_str(), target.c_str(), type, flags, data) != 0) {
            int err = errno;
            std::string what = type ? std::string(type) : std::string("bind ") + src;
            fail("cannot set up the simulated host: mount " + what + " on " + target + ": " + std::strerror(err));
        }
    }

    void overlay(const std::string& target, const std::string& upper, const std::string& work) {
        std::string data = "lowerdir=" + target + ",upperdir=" + upper + ",workdir=" + work;
        mount_or_fail("overlay", target, "overlay", 0, data.c_str());
    }

    void populate_dev() {
        for (const auto& [name, fd] : nodes_) {
            std::string path = "/dev/" + name;
            int f = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
            if (f < 0)
                fail("cannot set up the simulated host: " + fs::errno_text("create", path));
            ::close(f);
            mount_or_fail(fd_path(fd), path, nullptr, MS_BIND | MS_REC, nullptr);
            ::close(fd);
        }
        const std::pair<const char*, const char*> links[] = {
            {"/proc/self/fd", "/dev/fd"},
            {"/proc/self/fd/0", "/dev/stdin"},
            {"/proc/self/fd/1", "/dev/stdout"},
            {"/proc/self/fd/2", "/dev/stderr"},
        };
        for (const auto& [target, link] : links)
            if (::symlink(target, link) != 0)
                fail("cannot set up the simulated host: " + fs::errno_text("symlink", link));
        if (::mkdir("/dev/shm", 01777) != 0)
            fail("cannot set up the simulated host: " + fs::errno_text("mkdir", "/dev/shm"));
        mount_or_fail("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
        scsi_nodes();
    }

    // The LUNs' SCSI generic and disk nodes, as udev would make them, with
    // the simulator's numbers (the tree's dev files say the same). Planned
    // while the root is still in sight, made in the fresh /dev.
    struct Node {
        std::string path;
        mode_t type;
        dev_t dev;
    };

    void plan_scsi_nodes() {
        Scenario s;
        std::string err;
        if (!load_scenario(root::scenario(o_.root), s, err))
            fail("cannot set up the simulated host: " + err);
        for (const ScsiDevice& d : scsi_devices(s)) {
            scsi_nodes_.push_back({"/dev/sg" + std::to_string(d.sg), S_IFCHR, makedev(root::MAJOR_SG, d.sg)});
            if (d.disk >= 0)
                scsi_nodes_.push_back({"/dev/" + disk_name(static_cast<uint32_t>(d.disk)), S_IFBLK,
                                       makedev(root::MAJOR_DISK, static_cast<unsigned>(d.disk))});
        }
    }

    void scsi_nodes() {
        for (const Node& n : scsi_nodes_)
            if (::mknod(n.path.c_str(), n.type | 0660, n.dev) != 0) {
                if (errno == EPERM && o_.user_namespace) {
                    report("without root no device nodes can be made: the LUNs have no /dev/sg or /dev/sd nodes");
                    return;
                }
                fail("cannot set up the simulated host: " + fs::errno_text("mknod", n.path));
            }
    }

    const RunOptions& o_;
    int report_;
    std::vector<std::pair<std::string, int>> keep_;
    std::vector<std::pair<std::string, int>> nodes_;
    std::vector<Node> scsi_nodes_;
};

}  // namespace

bool can_run(std::string& reason) {
    if (::geteuid() != 0 && !fs::exists("/proc/self/ns/user")) {
        reason = "not running as root (euid " + std::to_string(::geteuid()) + ") and no user namespaces";
        return false;
    }
    if (!fs::exists("/proc/self/ns/mnt") || !fs::exists("/proc/self/ns/ipc")) {
        reason = "the kernel offers no mount or IPC namespaces";
        return false;
    }
    return true;
}

std::vector<std::string> sim_environment(const RunOptions& o, char** env) {
    std::vector<std::string> out;
    std::string preload, asan, sleep_scale;
    for (char** e = env; e && *e; ++e) {
        std::string_view v(*e);
        auto take = [&](std::string_view name, std::string& into) {
            if (v.size() > name.size() && v.substr(0, name.size()) == name && v[name.size()] == '=') {
                into = std::string(v.substr(name.size() + 1));
                return true;
            }
            return false;
        };
        std::string ignored;
        if (take("LD_PRELOAD", preload) || take("ASAN_OPTIONS", asan) || take("VXSIM_SLEEP_SCALE", sleep_scale) ||
            take("VXSIM_ROOT", ignored) || take("VXSIM_EUID", ignored))
            continue;
        out.emplace_back(v);
    }

    // The emulation comes after what the caller preloads (a sanitizer runtime
    // must stay first); VXSIM_PRELOAD_FIRST puts a library in front of all.
    std::vector<std::string> libs;
    if (const char* first = std::getenv("VXSIM_PRELOAD_FIRST"); first && *first)
        libs.emplace_back(first);
    size_t pos = 0;
    while (pos <= preload.size() && !preload.empty()) {
        size_t end = preload.find_first_of(": ", pos);
        if (end == std::string::npos)
            end = preload.size();
        std::string lib = preload.substr(pos, end - pos);
        if (!lib.empty() && lib != o.preload && (libs.empty() || lib != libs.front()))
            libs.push_back(lib);
        pos = end + 1;
    }
    libs.push_back(o.preload);
    std::string joined;
    for (const std::string& l : libs)
        joined += (joined.empty() ? "" : ":") + l;
    out.push_back("LD_PRELOAD=" + joined);
    // The emulation is preloaded before the sanitizer runtime on purpose.
    out.push_back("ASAN_OPTIONS=" + (asan.empty() ? std::string() : asan + ":") + "verify_asan_link_order=0");
    out.push_back("VXSIM_ROOT=" + o.root);
    if (!o.real_sleep)
        out.push_back("VXSIM_SLEEP_SCALE=" + (sleep_scale.empty() ? std::string("0.01") : sleep_scale));
    if (o.euid)
        out.push_back("VXSIM_EUID=" + std::to_string(*o.euid));
    return out;
}

int run_in_sim(const RunOptions& o) {
    if (o.command.empty()) {
        std::fprintf(stderr, "vxsim: no command to run\n");
        return 2;
    }
    // Overlay options are a comma-separated list: such paths cannot be said.
    if (o.root.find_first_of(",:\\") != std::string::npos) {
        std::fprintf(stderr, "vxsim: the sim root's path may not contain ',', ':' or '\\': %s\n", o.root.c_str());
        return 2;
    }
    int pipefd[2];
    if (::pipe2(pipefd, O_CLOEXEC) != 0) {
        std::fprintf(stderr, "vxsim: pipe: %s\n", std::strerror(errno));
        return 2;
    }
    std::fflush(nullptr);
    pid_t pid = ::fork();
    if (pid < 0) {
        std::fprintf(stderr, "vxsim: fork: %s\n", std::strerror(errno));
        return 2;
    }
    if (pid == 0) {
        ::close(pipefd[0]);
        Setup(o, pipefd[1]).run(environ);
    }
    ::close(pipefd[1]);

    // Like system(3): the terminal's interrupt reaches the command directly,
    // the runner just outlives it to clean up; termination is passed on.
    g_child = pid;
    struct sigaction ign {}, fwd {}, old_int {}, old_quit {}, old_term {}, old_hup {};
    ign.sa_handler = SIG_IGN;
    fwd.sa_handler = forward_signal;
    ::sigaction(SIGINT, &ign, &old_int);
    ::sigaction(SIGQUIT, &ign, &old_quit);
    ::sigaction(SIGTERM, &fwd, &old_term);
    ::sigaction(SIGHUP, &fwd, &old_hup);

    std::string message;
    char buf[512];
    for (;;) {
        ssize_t n = ::read(pipefd[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        message.append(buf, static_cast<size_t>(n));
    }
    ::close(pipefd[0]);
    if (!message.empty())
        std::fprintf(stderr, "vxsim: %s", message.c_str());

    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    g_child = 0;
    ::sigaction(SIGINT, &old_int, nullptr);
    ::sigaction(SIGQUIT, &old_quit, nullptr);
    ::sigaction(SIGTERM, &old_term, nullptr);
    ::sigaction(SIGHUP, &old_hup, nullptr);

    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return 2;
}

}  // namespace vxsim
