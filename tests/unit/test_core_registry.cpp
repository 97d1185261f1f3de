// Instance registry: handles, look-ups, numbering, open and close.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "unit_support.h"
#include "vx_core.h"
#include "vx_sddbg.h"

namespace {

class Registry : public testing::Test {
protected:
    void TearDown() override {
        vxapi_free_api_priv_data_mem();
        vxapi_free_api_phy_info_mem();
        api_use_database = 1;
        api_shared_data = nullptr;
        memset(api_priv_data, 0, sizeof api_priv_data);
    }

    // Appends a port record; a physical port gets its own adapter record.
    vxapi_priv_database* add_port(uint32_t iftype, const char* serial, const char* model = "VXW2031",
                                  uint32_t features = VX_FEAT_SYSFS, vxapi_priv_database* parent = nullptr) {
        uint32_t err = 0;
        EXPECT_EQ(vxapi_alloc_api_priv_data_mem(&err), 0);
        vxapi_priv_database* port = current_priv_inst;
        port->interface_type = iftype;
        port->features = features;
        if (iftype == VX_IFTYPE_VIRTUAL && parent) {
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
};

TEST_F(Registry, HandleIsInstancePlusOneAndZeroIsNeverValid) {
    EXPECT_EQ(vxapi_create_apihandle(0), 1u);
    EXPECT_EQ(vxapi_create_apihandle(41), 42u);
    EXPECT_EQ(check_handle(1), nullptr);  // no list yet
    vxapi_priv_database* first = add_port(VX_IFTYPE_PHYSICAL, "A");
    add_port(VX_IFTYPE_PHYSICAL, "B");
    EXPECT_EQ(check_handle(0), nullptr);
    EXPECT_EQ(check_handle(1), nullptr);  // nothing opened yet

    uint32_t handle = 0, status = 0;
    ASSERT_EQ(vxapi_open_adapter(first, &handle, &status), 0);
    EXPECT_EQ(handle, 1u);
    EXPECT_EQ(check_handle(1), first);
    EXPECT_EQ(check_handle(2), nullptr);
    EXPECT_EQ(check_handle(0), nullptr);
}

TEST_F(Registry, RecordWithoutChannelIsRejected) {
    vxapi_priv_database* port = add_port(VX_IFTYPE_PHYSICAL, "A", "VXW2031", 0);
    port->apihandle = 1;
    EXPECT_EQ(check_handle(1), nullptr);
    for (uint32_t channel : {VX_FEAT_IOCTL_NODE, VX_FEAT_SYSFS, VX_FEAT_IOCTL_NODE | VX_FEAT_NEW_IOCTL}) {
        port->features = channel;
        EXPECT_EQ(check_handle(1), port) << channel;
    }
    port->features = VX_FEAT_NEW_IOCTL | VX_FEAT_PROPS_READ | VX_FEAT_BSG;
    EXPECT_EQ(check_handle(1), nullptr);
}

TEST_F(Registry, SysfsPortOpensTwiceWithOneHandleAndNoFile) {
    add_port(VX_IFTYPE_PHYSICAL, "A");
    vxapi_priv_database* port = add_port(VX_IFTYPE_PHYSICAL, "B");
    uint32_t h1 = 0, h2 = 0, status = 0;
    ASSERT_EQ(vxapi_open_adapter(port, &h1, &status), 0);
    ASSERT_EQ(vxapi_open_adapter(port, &h2, &status), 0);
    EXPECT_EQ(h1, 2u);
    EXPECT_EQ(h2, h1);
    EXPECT_EQ(port->open_cnt, 2u);
    EXPECT_EQ(port->oshandle, -1);

    ASSERT_EQ(vxapi_close_adapter(port, &status), 0);
    EXPECT_EQ(port->open_cnt, 1u);
    EXPECT_EQ(check_handle(2), port);  // one close leaves it open
    ASSERT_EQ(vxapi_close_adapter(port, &status), 0);
    EXPECT_EQ(port->open_cnt, 0u);
    EXPECT_EQ(port->apihandle, 0u);
    EXPECT_EQ(check_handle(2), nullptr);
    EXPECT_EQ(vxapi_close_adapter(port, &status), 0);  // closing a closed port does nothing
    EXPECT_EQ(port->open_cnt, 0u);
}

TEST_F(Registry, NodePortOpensItsPathOnceAndClosesOnLastClose) {
    const std::string dir = make_temp_dir();
    const std::string node = dir + "/node";
    close(open(node.c_str(), O_CREAT | O_WRONLY, 0600));
    vxapi_priv_database* port = add_port(VX_IFTYPE_PHYSICAL, "A", "VXE1040", VX_FEAT_IOCTL_NODE);
    snprintf(reinterpret_cast<char*>(port->phys_path), sizeof port->phys_path, "%s", node.c_str());

    uint32_t handle = 0, status = 0;
    ASSERT_EQ(vxapi_open_adapter(port, &handle, &status), 0);
    const int fd = port->oshandle;
    ASSERT_GE(fd, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    ASSERT_EQ(vxapi_open_adapter(port, &handle, &status), 0);
    EXPECT_EQ(port->oshandle, fd);  // not reopened
    EXPECT_EQ(handle, 1u);

    ASSERT_EQ(vxapi_close_adapter(port, &status), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD) != -1, true);
    ASSERT_EQ(vxapi_close_adapter(port, &status), 0);
    EXPECT_EQ(port->oshandle, -1);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    remove_tree(dir);
}

TEST_F(Registry, OpenFailuresReportTheirCause) {
    vxapi_priv_database* port = add_port(VX_IFTYPE_PHYSICAL, "A", "VXE1040", VX_FEAT_IOCTL_NODE);
    snprintf(reinterpret_cast<char*>(port->phys_path), sizeof port->phys_path, "/nonexistent/vxfcdrv");
    uint32_t handle = 99, status = 0;
    EXPECT_EQ(vxapi_open_adapter(port, &handle, &status), 1);
    EXPECT_EQ(status, static_cast<uint32_t>(ENOENT));
    EXPECT_EQ(handle, 99u);
    EXPECT_EQ(port->open_cnt, 0u);
    EXPECT_EQ(port->apihandle, 0u);

    // A record that is not in the list has no position.
    vxapi_priv_database stray{};
    stray.features = VX_FEAT_SYSFS;
    EXPECT_EQ(vxapi_open_adapter(&stray, &handle, &status), 1);

    // Without the shared database nothing opens.
    api_use_database = 0;
    EXPECT_EQ(vxapi_open_adapter(port, &handle, &status), 2);
}

TEST_F(Registry, CloseOfMissingRecordIsTracedWithItsText) {
    const uint32_t saved = vx_debug;
    vx_debug = 0x006;
    uint32_t status = 0;
    int rc = 0;
    const std::string err = capture_stderr([&] { rc = vxapi_close_adapter(nullptr, &status); });
    vx_debug = saved;
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(err, "vxapi_close_adpter: api_priv_data_instnot found, exiting\n");
}

TEST_F(Registry, PortsAreNumberedPerAdapterBySerialNumber) {
    vxapi_priv_database* a1 = add_port(VX_IFTYPE_PHYSICAL, "SN-A");
    vxapi_priv_database* v1 = add_port(VX_IFTYPE_VIRTUAL, "", "", VX_FEAT_SYSFS, a1);
    vxapi_priv_database* a2 = add_port(VX_IFTYPE_PHYSICAL, "SN-A");
    vxapi_priv_database* b1 = add_port(VX_IFTYPE_PHYSICAL, "SN-B");
    vxapi_priv_database* a3 = add_port(VX_IFTYPE_PHYSICAL, "SN-A");
    for (vxapi_priv_database* p : {a1, a2, b1, a3})
        vxapi_fill_phy_port_number(p);
    EXPECT_EQ(a1->phy_info->port_number, 1);
    EXPECT_EQ(a2->phy_info->port_number, 2);
    EXPECT_EQ(b1->phy_info->port_number, 1);
    EXPECT_EQ(a3->phy_info->port_number, 3);  // the virtual port in between does not count
    EXPECT_EQ(v1->phy_info, a1->phy_info);
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
    uint32_t value = 7;
    EXPECT_EQ(vxapi_get_api_priv_inst_from_user_instance(0), nullptr);
    EXPECT_EQ(vxapi_get_instance_from_api_priv_inst(nullptr, &value), 1);
    EXPECT_EQ(vxapi_get_host_no_by_handle(1, &value), 1);
    EXPECT_EQ(value, 0xFFFFu);
    EXPECT_EQ(vxapi_get_api_priv_inst_from_adaptername("varnex-VXW2031-0"), nullptr);
    vxapi_phy_info pci{};
    const uint32_t saved = vx_debug;
    vx_debug = 0x006;
    std::string err = capture_stderr([&] {
        EXPECT_EQ(vxapi_get_open_adapter_count(), 0u);
        EXPECT_EQ(vxapi_is_host_no_present(3), 1);
        EXPECT_EQ(vxapi_get_api_phy_info_inst(&pci), nullptr);
    });
    vx_debug = saved;
    EXPECT_NE(err.find("no memory allocated for api_priv_data"), std::string::npos) << err;
    EXPECT_NE(err.find("api_phy_info is NOT initialized"), std::string::npos) << err;
}

TEST_F(Registry, LookupsByInstanceHostAndHandle) {
    vxapi_priv_database* p0 = add_port(VX_IFTYPE_PHYSICAL, "A");
    vxapi_priv_database* p1 = add_port(VX_IFTYPE_PHYSICAL, "A");
    p0->host_no = 5;
    p1->host_no = 7;
    EXPECT_EQ(vxapi_get_api_priv_inst_from_user_instance(1), p1);
    EXPECT_EQ(vxapi_get_api_priv_inst_from_user_instance(2), nullptr);
    EXPECT_EQ(vxapi_get_api_priv_inst_from_user_instance(0xFFFFFFFF), nullptr);
    uint32_t instance = 0;
    EXPECT_EQ(vxapi_get_instance_from_api_priv_inst(p1, &instance), 0);
    EXPECT_EQ(instance, 1u);

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
    vxapi_priv_database* v1 = add_port(VX_IFTYPE_VIRTUAL, "", "", VX_FEAT_SYSFS, phys);
    vxapi_priv_database* v2 = add_port(VX_IFTYPE_VIRTUAL, "", "", VX_FEAT_SYSFS, phys);
    v1->vp_idx = 1;
    v2->vp_idx = 2;
    const uint8_t wwnn[8] = {0x20, 0, 0, 0x1b, 0x32, 0, 0, 1};
    const uint8_t wwpn[8] = {0x21, 0, 0, 0x1b, 0x32, 0, 0, 1};
    memcpy(v2->wwnn, wwnn, 8);
    memcpy(v2->wwpn, wwpn, 8);

    EXPECT_EQ(vxapi_get_phy_port_from_vport(v2), phys);
    vxapi_priv_database orphan{};
    EXPECT_EQ(vxapi_get_phy_port_from_vport(&orphan), nullptr);
    EXPECT_EQ(vxapi_get_vport_from_wwn(phys, wwnn, wwpn), v2);
    EXPECT_EQ(vxapi_get_vport_from_wwn(other, wwnn, wwpn), nullptr);
    EXPECT_EQ(vxapi_get_vport_from_wwn(phys, wwpn, wwnn), nullptr);
    EXPECT_EQ(vxapi_get_vport_from_vport_id(phys, 1), v1);
    EXPECT_EQ(vxapi_get_vport_from_vport_id(phys, 2), v2);
    EXPECT_EQ(vxapi_get_vport_from_vport_id(phys, 3), nullptr);
    EXPECT_EQ(vxapi_get_vport_from_vport_id(other, 1), nullptr);
}

TEST_F(Registry, AdapterRecordByPciLocation) {
    vxapi_priv_database* a = add_port(VX_IFTYPE_PHYSICAL, "A");
    vxapi_priv_database* b = add_port(VX_IFTYPE_PHYSICAL, "A");
    a->phy_info->pci_bus = 3;
    a->phy_info->pci_dev_func = 0;
    b->phy_info->pci_bus = 3;
    b->phy_info->pci_dev_func = 1;
    vxapi_phy_info where{};
    where.pci_bus = 3;
    where.pci_dev_func = 1;
    EXPECT_EQ(vxapi_get_api_phy_info_inst(&where), b->phy_info);
    where.pci_domain = 1;
    EXPECT_EQ(vxapi_get_api_phy_info_inst(&where), nullptr);
}

TEST_F(Registry, FreeingOneRecordKeepsTheOthersInOrder) {
    vxapi_priv_database* p0 = add_port(VX_IFTYPE_PHYSICAL, "A");
    vxapi_priv_database* p1 = add_port(VX_IFTYPE_PHYSICAL, "B");
    vxapi_priv_database* p2 = add_port(VX_IFTYPE_PHYSICAL, "C");
    vxapi_phy_info* info1 = p1->phy_info;
    vxapi_free_api_priv_data_element(p1);
    vxapi_free_api_phy_info_element(info1);
    EXPECT_EQ(vxapi_get_api_priv_inst_from_user_instance(0), p0);
    EXPECT_EQ(vxapi_get_api_priv_inst_from_user_instance(1), p2);
    EXPECT_EQ(vxapi_get_api_priv_inst_from_user_instance(2), nullptr);
    EXPECT_EQ(api_phy_info->count, 2u);
    // The newest record is the current one; freeing it clears the pointer.
    EXPECT_EQ(current_priv_inst, p2);
    vxapi_free_api_priv_data_element(p2);
    EXPECT_EQ(current_priv_inst, nullptr);
    EXPECT_EQ(api_priv_database->count, 1u);
    vxapi_priv_database* fresh = add_port(VX_IFTYPE_PHYSICAL, "D");
    EXPECT_EQ(fresh->oshandle, -1);
    EXPECT_NE(fresh->api_event_cbs, nullptr);
}

TEST_F(Registry, LegacyTableLookup) {
    int index = 5;
    EXPECT_EQ(vxapi_get_api_inst_by_handle(77, &index), 1);
    EXPECT_EQ(index, -1);
    api_priv_data[31].apihandle = 77;
    EXPECT_EQ(vxapi_get_api_inst_by_handle(77, &index), 0);
    EXPECT_EQ(index, 31);
}

TEST_F(Registry, LibraryInstanceCountAndBitCount) {
    EXPECT_EQ(vxapi_get_total_libinst_count(), 0u);  // no mapping
    auto shared = std::make_unique<vxapi_shared_t>();
    memset(shared.get(), 0, sizeof *shared);
    const uint32_t flags[8] = {0x01, 0x04, 0x08, 0x02, 0x10, 0x00, 0x05, 0x00};
    memcpy(shared->libinst_flags, flags, sizeof flags);
    api_shared_data = shared.get();
    EXPECT_EQ(vxapi_get_total_libinst_count(), 4u);

    const std::pair<uint32_t, uint32_t> bits[] = {{0, 0}, {1, 1}, {0x7, 3}, {0x80000001, 2}, {0xFFFFFFFF, 32}};
    for (const auto& [value, count] : bits)
        EXPECT_EQ(vxapi_get_number_of_bits_set(value), count) << value;
}

}  // namespace
