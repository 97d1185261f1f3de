// Load and unload around the SD entry points, what simulated hosts cannot show: no
// adapters, a database lost, clean-up, failed netlink opens, signals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "unit_support.h"
#include "vsdmgt.h"
#include "vx_core.h"
#include "vx_event.h"
#include "vx_sddbg.h"
#include "vx_netlink.h"

namespace {

bool sem_exists(int key) { return semget(key, 1, 0) != -1; }

class Load : public testing::Test {
protected:
    void SetUp() override {
        VX_REQUIRE_PRIVATE_IPC();
        dir_ = make_temp_dir();
        ASSERT_EQ(chmod(dir_.c_str(), 0755), 0);
        db_ = dir_ + "/vx_shared.dat";
        log_ = dir_ + "/trace.log";
        memcpy(saved_name_, vx_db_fname, sizeof saved_name_);
        snprintf(vx_db_fname, sizeof vx_db_fname, "%s", db_.c_str());
        snprintf(vxdbglog_path, sizeof vxdbglog_path, "%s", log_.c_str());
        // libsysfs's mount point: an empty tree is a host without adapters.
        ASSERT_EQ(mkdir((dir_ + "/sys").c_str(), 0755), 0);
        setenv("SYSFS_PATH", (dir_ + "/sys").c_str(), 1);
    }

    void TearDown() override {
        if (api_priv_database)
            vxapi_unload_lib();
        if (api_shm_fildes >= 0)
            vxapi_close_database(api_shm_fildes);
        vxapi_free_api_priv_data_mem();
        vxapi_free_api_phy_info_mem();
        for (int key : {VX_SEM_KEY_DBUPDATE, VX_SEM_KEY_FLASH, VX_SEM_KEY_THREAD})
            if (sem_exists(key))
                semctl(semget(key, 1, 0), 0, IPC_RMID);
        api_dbupdate_sem_id = api_flash_sem_id = api_thread_sem_id = -1;
        api_use_database = 1;
        unsetenv("SYSFS_PATH");
        memcpy(vx_db_fname, saved_name_, sizeof saved_name_);
        vxdbglog_path[0] = '\0';
        vx_debug = VXDBG_DEFAULT;
        if (!dir_.empty())
            remove_tree(dir_);
    }

    // Sysfs port records and an open database, as a load leaves them.
    void load_ports(int count) {
        for (int i = 0; i < count; ++i) {
            uint32_t err = 0;
            ASSERT_EQ(vxapi_alloc_api_priv_data_mem(&err), 0);
            current_priv_inst->features = VX_FEAT_SYSFS;
            current_priv_inst->interface_type = VX_IFTYPE_PHYSICAL;
            snprintf(reinterpret_cast<char*>(current_priv_inst->phys_path), 256, "/sys/bus/pci/drivers/vxfcdrv/%d", i);
        }
        int fd = -1;
        ASSERT_EQ(vxapi_open_database(&fd), 0);
    }

    bool db_exists() const { return access(db_.c_str(), F_OK) == 0; }

    std::string dir_, db_, log_;
    char saved_name_[VX_DB_FNAME_LEN] = {};
};

TEST_F(Load, HostWithoutAdaptersKeepsNothingAndRetriesNextTime) {
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        EXPECT_EQ(vxapi_load_lib(), 0);  // found nothing is not a failure
        EXPECT_EQ(api_priv_database, nullptr);
        EXPECT_EQ(api_thread_sem_id, -1);
        EXPECT_FALSE(sem_exists(VX_SEM_KEY_THREAD));
        EXPECT_FALSE(db_exists());
        int handle = 0;
        EXPECT_EQ(SDOpenDevice(0, &handle), SDM_STATUS_DEVICE_NOT_FOUND);
    }
}

// In use but not set up. (Not in use, without System V IPC, is tested end to end.)
TEST_F(Load, EntryPointsRefuseAMissingDatabase) {
    load_ports(2);
    ASSERT_EQ(vxapi_close_database(api_shm_fildes), 0);
    int handle = 0;
    EXPECT_EQ(SDOpenDevice(0, nullptr), SDM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(SDOpenDevice(0, &handle), SDM_STATUS_OUT_OF_MEMORY);
    EXPECT_EQ(SDGetNumberOfAdapters(), 0u);
}

TEST_F(Load, CleanupForgetsEveryOpenAndCallback) {
    load_ports(2);
    vxapi_priv_database* ioctl_port = vxapi_get_api_priv_inst_from_user_instance(1);
    ioctl_port->features = VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL | VX_FEAT_EVENTS;
    const int node = open("/dev/null", O_RDWR | O_CLOEXEC);
    ASSERT_GE(node, 0);
    ioctl_port->oshandle = node;
    ioctl_port->apihandle = 2;
    ioctl_port->open_cnt = 3;
    ioctl_port->port_flags = VX_PORT_FLAG_HBAPT_CB;
    ioctl_port->api_event_cbs->hbapt.hba_port_buf_len = 64;

    vxapi_cleanup_hbas();
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [](vxapi_priv_database* r) {
        EXPECT_EQ(r->oshandle, -1);
        EXPECT_EQ(r->apihandle, 0u);
        EXPECT_EQ(r->open_cnt, 0u);
        EXPECT_EQ(r->features & VX_FEAT_EVENTS, 0u);
        EXPECT_EQ(r->port_flags & VX_PORT_FLAG_HBAPT_CB, 0u);
        EXPECT_EQ(r->api_event_cbs->hbapt.hba_port_buf_len, 0u);
        EXPECT_EQ(memcmp(r->phys_path, "\0\0\0\0", 4), 0);  // the event thread's end mark
        return true;
    });
    EXPECT_EQ(fcntl(node, F_GETFD), -1);  // the port's node was closed
    EXPECT_EQ(ioctl_port->features & VX_FEAT_IOCTL_NODE, VX_FEAT_IOCTL_NODE);
}

// Without free descriptors both opens fail: nothing is marked or kept.
TEST_F(Load, FailedNetlinkOpensMarkNoPortAndKeepNothing) {
    load_ports(3);
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    const rlimit none{0, saved.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const int failed = vxapi_open_netlink_socket();
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(vxapi_nl_fd, -1);
    EXPECT_EQ(vxapi_scsi_nl_fd, -1);
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [](vxapi_priv_database* r) {
        EXPECT_EQ(r->features & (VX_FEAT_NL_VENDOR | VX_FEAT_NL_SCSI), 0u);
        return true;
    });
    EXPECT_TRUE(!vxapi_nlm_aen_sendbuf && !vxapi_nlm_aen_recvbuf && !vxapi_scsi_nlm_aen_recvbuf);
}

TEST_F(Load, TerminationSignalGivesBackTheSharedStateThenEndsTheProcess) {
    for (int sig : {SIGHUP, SIGINT, SIGTERM}) {
        SCOPED_TRACE(sig);
        unlink(log_.c_str());
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            freopen("/dev/null", "w", stderr);  // the raised mask echoes every line there
            load_ports(1);
            vxapi_setup_signal_handlers();
            vx_debug = VXDBG_LOGFILE | VXDBG_TRACE;
            raise(sig);
            _exit(0);  // not reached: the handler re-raises with the default action
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(WTERMSIG(status), sig);
        const std::string line = "vxapi_terminate: got signal=" + std::to_string(sig) + ", giving back the library's shared state.\n";
        EXPECT_NE(read_file(log_).find(line), std::string::npos);
        EXPECT_FALSE(db_exists());  // the last client left
        EXPECT_FALSE(sem_exists(VX_SEM_KEY_DBUPDATE));
    }
}

}  // namespace
