// Instance registry: handles, look-ups, numbering, open and close.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "unit_support.h"
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

class Registry : public testing::Test {
protected:
    void TearDown() override {
        vx_debug = VXDBG_DEFAULT;
        vxapi_free_api_priv_data_mem();
        vxapi_free_api_phy_info_mem();
        api_shared_data = nullptr;
    }

    // Appends a port record; a physical port gets its own adapter record.
    vxapi_priv_database* add_port(uint32_t iftype, const char* serial, const char* model = "VXW2031",
                                  uint32_t features = VX_FEAT_SYSFS, vxapi_priv_database* parent = nullptr) {
        uint32_t err = 0;
        EXPECT_EQ(vxapi_alloc_api_priv_data_mem(&err), 0);
        vxapi_priv_database* port = current_priv_inst;
        port->interface_type = iftype;
        port->features = features;
        if (parent) {
            port->phy_info = parent->phy_info;
            port->parent = parent;
        } else {
            EXPECT_EQ(vxapi_alloc_api_phy_info_mem(&err), 0);
            port->phy_info = current_phy_info_inst;
            snprintf(reinterpret_cast<char*>(port->phy_info->serial_num), 128, "%s", serial);
            snprintf(reinterpret_cast<char*>(port->phy_info->model), 16, "%s", model);
        }
        return port;
    }
    vxapi_priv_database* add_vport(vxapi_priv_database* parent) {
        return add_port(VX_IFTYPE_VIRTUAL, "", "", VX_FEAT_SYSFS, parent);
    }
};

TEST_F(Registry, HandleZeroIsNeverValidAndAChannelIsNeeded) {
    EXPECT_EQ(vxapi_create_apihandle(41), 42u);
    EXPECT_EQ(check_handle(1), nullptr);  // no list yet
    vxapi_priv_database* port = add_port(VX_IFTYPE_PHYSICAL, "A", "VXW2031", 0);
    add_port(VX_IFTYPE_PHYSICAL, "B");  // a channel, not opened: its handle field is 0
    EXPECT_EQ(check_handle(0), nullptr);
    port->apihandle = 1;
    EXPECT_EQ(check_handle(1), nullptr);  // no channel
    for (uint32_t channel : {VX_FEAT_IOCTL_NODE, VX_FEAT_SYSFS, VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL}) {
        port->features = channel;
        EXPECT_EQ(check_handle(1), port) << channel;
    }
    port->features = VX_FEAT_NEW_IOCTL | VX_FEAT_PROPS_READ | VX_FEAT_BSG;
    EXPECT_EQ(check_handle(1), nullptr);
}

TEST_F(Registry, DoubleOpenSharesOneHandleAndTheNodeUntilTheLastClose) {
    add_port(VX_IFTYPE_PHYSICAL, "A");
    vxapi_priv_database* sysfs = add_port(VX_IFTYPE_PHYSICAL, "B");
    vxapi_priv_database* ioctl = add_port(VX_IFTYPE_PHYSICAL, "C", "VXE1040", VX_FEAT_IOCTL_NODE);
    snprintf(reinterpret_cast<char*>(ioctl->phys_path), sizeof ioctl->phys_path, "/dev/null");

    for (auto [port, handle_wanted] : {std::pair{sysfs, 2u}, std::pair{ioctl, 3u}}) {
        SCOPED_TRACE(handle_wanted);
        uint32_t h1 = 0, h2 = 0, status = 0;
        ASSERT_EQ(vxapi_open_adapter(port, &h1, &status), 0);
        const int fd = port->oshandle;
        ASSERT_EQ(vxapi_open_adapter(port, &h2, &status), 0);
        EXPECT_EQ(h1, handle_wanted);  // its position plus one
        EXPECT_EQ(h2, h1);
        EXPECT_EQ(port->open_cnt, 2u);
        EXPECT_EQ(port->oshandle, fd);  // not reopened
        EXPECT_TRUE(port == sysfs ? fd == -1 : (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0);  // no file; close-on-exec

        ASSERT_EQ(vxapi_close_adapter(port, &status), 0);
        EXPECT_EQ(check_handle(h1), port);  // one close leaves it open
        EXPECT_EQ(port->oshandle, fd);
        ASSERT_EQ(vxapi_close_adapter(port, &status), 0);
        EXPECT_EQ(check_handle(h1), nullptr);
        EXPECT_EQ(port->oshandle, -1);
        EXPECT_TRUE(fd < 0 || fcntl(fd, F_GETFD) == -1);  // the node was closed
        EXPECT_EQ(vxapi_close_adapter(port, &status), 0);  // closing a closed port does nothing
        EXPECT_EQ(port->open_cnt, 0u);
    }
}

TEST_F(Registry, OpenAndCloseFailures) {
    vxapi_priv_database* port = add_port(VX_IFTYPE_PHYSICAL, "A", "VXE1040", VX_FEAT_IOCTL_NODE);
    snprintf(reinterpret_cast<char*>(port->phys_path), sizeof port->phys_path, "/nonexistent/vxfcdrv");
    uint32_t handle = 99, status = 0;
    EXPECT_EQ(vxapi_open_adapter(port, &handle, &status), 1);
    EXPECT_EQ(status, static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(handle, 99u);
    EXPECT_EQ(port->open_cnt, 0u);
    EXPECT_EQ(port->apihandle, 0u);

    vxapi_priv_database stray{};  // not in the list: no position
    stray.features = VX_FEAT_SYSFS;
    EXPECT_EQ(vxapi_open_adapter(&stray, &handle, &status), 1);

    int rc = 0;
    vx_debug = 0x006;  // the echo on
    EXPECT_EQ(capture_stderr([&] { rc = vxapi_close_adapter(nullptr, &status); }),
              "vxapi_close_adpter: api_priv_data_instnot found, exiting\n");
    EXPECT_EQ(rc, 1);
}

TEST_F(Registry, PortsAreNumberedPerAdapterBySerialNumber) {
    vxapi_priv_database* a1 = add_port(VX_IFTYPE_PHYSICAL, "SN-A");
    add_vport(a1);
    vxapi_priv_database* a2 = add_port(VX_IFTYPE_PHYSICAL, "SN-A");
    vxapi_priv_database* b1 = add_port(VX_IFTYPE_PHYSICAL, "SN-B");
    vxapi_priv_database* a3 = add_port(VX_IFTYPE_PHYSICAL, "SN-A");
    for (vxapi_priv_database* p : {a1, a2, b1, a3})
        vxapi_fill_phy_port_number(p);
    EXPECT_EQ(a1->phy_info->port_number, 1);
    EXPECT_EQ(a2->phy_info->port_number, 2);
    EXPECT_EQ(b1->phy_info->port_number, 1);
    EXPECT_EQ(a3->phy_info->port_number, 3);  // the virtual port in between does not count
}

TEST_F(Registry, AdapterNameNeedsModelAndPosition) {
    for (int i = 0; i < 4; ++i)
        add_port(VX_IFTYPE_PHYSICAL, "X", "VXE1040");
    vxapi_priv_database* fifth = add_port(VX_IFTYPE_PHYSICAL, "Y", "VXW2031");
    EXPECT_EQ(vxapi_get_api_priv_inst_from_adaptername("varnex-VXW2031-4"), fifth);
    EXPECT_EQ(vxapi_get_api_priv_inst_from_adaptername("varnex-VXW2031-5"), nullptr);
    EXPECT_EQ(vxapi_get_api_priv_inst_from_adaptername("varnex-VXE1040-4"), nullptr);
    EXPECT_EQ(vxapi_get_api_priv_inst_from_adaptername("varnex-VXE1040-0"),
              vxapi_get_api_priv_inst_from_user_instance(0));
    EXPECT_EQ(vxapi_get_api_priv_inst_from_adaptername("varnex-VXW2031-4 "), nullptr);
    EXPECT_EQ(vxapi_get_api_priv_inst_from_adaptername(nullptr), nullptr);
}

TEST_F(Registry, LookupsWithoutListsFindNothing) {
    vxapi_phy_info pci{};
    vx_debug = 0x006;
    const std::string err = capture_stderr([&] {
        EXPECT_EQ(vxapi_get_open_adapter_count(), 0u);
        EXPECT_EQ(vxapi_is_host_no_present(3), 1);
        EXPECT_EQ(vxapi_get_api_phy_info_inst(&pci), nullptr);
    });
    EXPECT_NE(err.find("no memory allocated for api_priv_data"), std::string::npos) << err;
    EXPECT_NE(err.find("api_phy_info is NOT initialized"), std::string::npos) << err;
}

// A handle that finds nothing yields host 0xFFFF; "present" answers 0.
TEST_F(Registry, LookupsByHandleAndHost) {
    vxapi_priv_database* p0 = add_port(VX_IFTYPE_PHYSICAL, "A");
    vxapi_priv_database* p1 = add_port(VX_IFTYPE_PHYSICAL, "A");
    p0->host_no = 5;
    p1->host_no = 7;
    uint32_t handle = 0, status = 0, host = 0;
    ASSERT_EQ(vxapi_open_adapter(p1, &handle, &status), 0);
    EXPECT_EQ(vxapi_get_host_no_by_handle(handle, &host), 0);
    EXPECT_EQ(host, 7u);
    EXPECT_EQ(vxapi_get_host_no_by_handle(0, &host), 1);
    EXPECT_EQ(host, 0xFFFFu);
    EXPECT_EQ(vxapi_get_open_adapter_count(), 1u);
    EXPECT_EQ(vxapi_is_host_no_present(5), 0);
    EXPECT_EQ(vxapi_is_host_no_present(6), 1);
}

TEST_F(Registry, VirtualPortLookups) {
    vxapi_priv_database* phys = add_port(VX_IFTYPE_PHYSICAL, "A");
    vxapi_priv_database* other = add_port(VX_IFTYPE_PHYSICAL, "B");
    add_vport(phys)->vp_idx = 1;
    vxapi_priv_database* v2 = add_vport(phys);
    v2->vp_idx = 2;
    const uint8_t wwnn[8] = {0x20, 0, 0, 0x1b, 0x32, 0, 0, 1}, wwpn[8] = {0x21, 0, 0, 0x1b, 0x32, 0, 0, 1};
    memcpy(v2->wwnn, wwnn, 8);
    memcpy(v2->wwpn, wwpn, 8);
    EXPECT_EQ(vxapi_get_vport_from_wwn(phys, wwnn, wwpn), v2);
    EXPECT_EQ(vxapi_get_vport_from_wwn(other, wwnn, wwpn), nullptr);
    EXPECT_EQ(vxapi_get_vport_from_wwn(phys, wwpn, wwnn), nullptr);
    EXPECT_EQ(vxapi_get_vport_from_vport_id(phys, 2), v2);
    EXPECT_EQ(vxapi_get_vport_from_vport_id(phys, 3), nullptr);
    EXPECT_EQ(vxapi_get_vport_from_vport_id(other, 1), nullptr);
}

// Slots with any of the bits 0x01, 0x04, 0x08 count.
TEST_F(Registry, LibraryInstanceCount) {
    EXPECT_EQ(vxapi_get_total_libinst_count(), 0u);  // no mapping
    auto shared = std::make_unique<vxapi_shared_t>();
    memset(shared.get(), 0, sizeof *shared);
    const uint32_t flags[8] = {0x01, 0x04, 0x08, 0x02, 0x10, 0x00, 0x05, 0x00};
    memcpy(shared->libinst_flags, flags, sizeof flags);
    api_shared_data = shared.get();
    EXPECT_EQ(vxapi_get_total_libinst_count(), 4u);
}

}  // namespace
