// Fake sysfs trees for the sysfs transport's unit tests, and a way to run
// code against a tree mounted over /sys in a private mount namespace.
#pragma once

#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <utility>
#include <string>

#include "unit_support.h"
#include "vx_sysfs.h"

class sysfs_tree {
public:
    sysfs_tree() : root_(make_temp_dir()) {}
    ~sysfs_tree() { remove_tree(root_); }
    sysfs_tree(const sysfs_tree&) = delete;
    sysfs_tree& operator=(const sysfs_tree&) = delete;

    const std::string& root() const { return root_; }
    std::string path(const std::string& rel) const { return root_ + "/" + rel; }

    void dir(const std::string& rel) const { std::filesystem::create_directories(path(rel)); }

    void file(const std::string& rel, const std::string& text) const {
        std::filesystem::create_directories(std::filesystem::path(path(rel)).parent_path());
        std::ofstream(path(rel), std::ios::binary) << text;
    }

    // A relative link, as the kernel makes them, from `rel` to `target` (both under the root).
    void link(const std::string& rel, const std::string& target) const {
        const std::filesystem::path from(path(rel));
        std::filesystem::create_directories(from.parent_path());
        std::filesystem::create_directory_symlink(std::filesystem::relative(path(target), from.parent_path()), from);
    }

    // Host N's device directory (devices/hN), reached through its
    // scsi_host class entry as in the kernel's tree; made on first use.
    std::string host(uint32_t host_no) const {
        const std::string n = "host" + std::to_string(host_no);
        const std::string dev = "devices/h" + std::to_string(host_no);
        if (!std::filesystem::exists(path("class/scsi_host/" + n))) {
            dir(dev + "/scsi_host/" + n);
            link(dev + "/scsi_host/" + n + "/device", dev);
            link("class/scsi_host/" + n, dev + "/scsi_host/" + n);
        }
        return dev;
    }

    // A remote port of host N under the host's device, listed in its class
    // too, with attribute texts (a newline is added to each).
    void rport(uint32_t host_no, const std::string& name,
               std::initializer_list<std::pair<const char*, std::string>> attrs) const {
        const std::string c = host(host_no) + "/" + name + "/fc_remote_ports/" + name;
        dir(c);
        for (const auto& [attr, text] : attrs)
            file(c + "/" + attr, text + "\n");
        link("class/fc_remote_ports/" + name, c);
    }

private:
    std::string root_;
};

// Points the library's mount path at a tree for one test.
class mnt_path_override {
public:
    explicit mnt_path_override(const std::string& root) {
        memcpy(saved_, sysfs_mnt_path, sizeof saved_);
        snprintf(sysfs_mnt_path, sizeof sysfs_mnt_path, "%s", root.c_str());
    }
    ~mnt_path_override() { memcpy(sysfs_mnt_path, saved_, sizeof saved_); }
    mnt_path_override(const mnt_path_override&) = delete;
    mnt_path_override& operator=(const mnt_path_override&) = delete;

private:
    char saved_[VXSYSFS_PATH_LEN];
};

// Runs `fn` in a child process whose /sys is `root` (and whose /tmp is a
// fresh tmpfs), so that libsysfs's own bus and driver walk sees the tree.
// Returns what `fn` returned, or an empty string with `*skipped` set when the
// host cannot give the child a mount namespace.
std::string run_with_private_sys(const std::string& root, const std::function<std::string()>& fn, bool* skipped);

#define VX_SKIP_WITHOUT_MOUNT_NS(skipped)                                          \
    do {                                                                           \
        if (skipped) {                                                             \
            if (getenv("VXSIM_REQUIRE"))                                           \
                FAIL() << "needs a private mount namespace (run as root)";        \
            GTEST_SKIP() << "needs a private mount namespace (run as root)";       \
        }                                                                          \
    } while (0)
