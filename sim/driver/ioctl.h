// The driver's extended-ioctl commands: the instance space behind each node,
// the records it answers with (built from the same model data, with the same
// derivations, as the sysfs attributes the tree renders), and the command
// dispatcher. The interposed entry point (ioctl.cpp) only moves bytes between
// the caller's memory and these functions, so tests drive them in-process.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "desc.h"
#include "exioct.h"
#include "exioctln.h"
#include "model.h"
#include "sim.h"

namespace vxsim::drv {

// One driver instance: a SCSI host of an adapter the node serves.
struct IoctlPort {
    const Adapter* adapter = nullptr;
    size_t fn = 0;                   // index into adapter->functions
    const HostPort* host = nullptr;
    bool physical = true;
    bool missing = false;            // counted, but the driver cannot select it
};

// The driver's instances behind a node, in scenario order (a function's
// physical port, then its virtual ports): the newer node serves the adapters
// on the ioctl channel, an older node those on the legacy channel bound to
// its driver.
std::vector<IoctlPort> ioctl_ports(const Scenario& s, NodeKind kind, std::string_view driver);

// ---- Records of one instance ----

EXT_HBA_NODE ioctl_node(const IoctlPort& p);
EXT_HBA_PORT ioctl_port(const IoctlPort& p);
EXT_CHIP ioctl_chip(const Scenario& s, const IoctlPort& p);
EXT_DRIVER ioctl_driver(const IoctlPort& p);
EXT_FW ioctl_fw(const IoctlPort& p);
EXT_CNA_PORT ioctl_cna(const IoctlPort& p);
EXT_LN_DRIVER_DATA ioctl_driver_data(const IoctlPort& p);
// The index-th remote port, of every role and state.
std::optional<EXT_DISC_PORT> ioctl_disc_port(const IoctlPort& p, uint16_t index);
// The index-th remote port with a SCSI target id, in target-id order.
std::optional<EXT_DISC_TARGET> ioctl_disc_target(const IoctlPort& p, uint16_t index);
std::optional<EXT_SCSI_ADDR> ioctl_wwpn_to_scsiaddr(const IoctlPort& p, const uint8_t (&wwpn)[8]);

// Node serial-number bytes s0 s1 s2 for a text of a capital letter and five
// digits, the inverse of the library's "%c%05d" computation; nullopt for
// any other text.
std::optional<std::array<uint8_t, 3>> serial_bytes(std::string_view text);

// Port-summary type mask bits.
enum : uint32_t {
    SUMMARY_TARGETS = 0x0001,
    SUMMARY_INITIATORS = 0x0002,
    SUMMARY_FABRIC = 0x0004,
    SUMMARY_OTHERS = 0x0008,
    SUMMARY_NOT_ONLINE = 0x0010,
    SUMMARY_ALL = 0x1000,
};

// Answers whose length depends on the caller's buffer: the bytes for the
// response buffer (never more than `room`) and the driver status.
struct ListAnswer {
    uint32_t status = EXT_STATUS_OK;
    std::vector<uint8_t> bytes;
};

// EXT_DEVICEDATA: every selected port counted in TotalDevices, entries while
// they fit in `room`.
ListAnswer ioctl_port_summary(const IoctlPort& p, uint32_t mask, uint32_t room);
// TGT_LUN_DATA_LIST and FO_LUN_DATA_LIST: online FCP targets with their LUN
// maps (4096 bytes when the driver flags have 0x04, else 2048).
ListAnswer ioctl_tgt_lun_list(const IoctlPort& p, uint32_t room);
ListAnswer ioctl_fo_lun_list(const IoctlPort& p, uint32_t room);

// ---- Dispatcher ----

struct IoctlRequest {
    uint8_t command = 0;
    uint16_t subcode = 0;
    uint16_t instance = 0;
    uint16_t hba_select = 0;
    std::vector<uint8_t> request;    // the request buffer, as far as the command reads it
    uint32_t response_len = 0;
    uint32_t reserved1 = 0;          // the flash offset of the option-ROM commands
    bool partial = false;            // a "partial" fault: a flash write stops halfway
};

struct IoctlAnswer {
    uint32_t status = EXT_STATUS_OK;
    uint32_t detail = 0;             // DetailStatus: the SCSI status byte of a pass-through
    uint16_t instance = 0;           // Instance as returned
    uint16_t hba_select = 0;         // HbaSelect as returned
    std::vector<uint8_t> response;   // bytes for the response buffer (at most response_len)
    std::vector<uint8_t> request_back;  // bytes written back over the request buffer (the pass-through record)
    JournalFields journal = JournalFields::object();  // the command's own fields for the journal line
    std::optional<int32_t> select;   // EXT_CC_SET_INSTANCE: the instance the descriptor now has
    std::optional<uint32_t> port;    // the driver instance the answer is about
};

// Request-buffer bytes the command reads (0: none); at most that many of
// RequestLen are read.
size_t ioctl_request_bytes(uint8_t command, uint16_t subcode);

// The largest CT or ELS request the driver takes.
inline constexpr size_t PASSTHRU_REQUEST_MAX = 65536;
// The largest flash update (above every flash of the adapter table).
inline constexpr size_t FLASH_REQUEST_MAX = 64u << 20;
// The largest NVRAM or VPD write (above every image).
inline constexpr size_t IMAGE_REQUEST_MAX = 4096;

// ---- Pass-through (ioctl_passthru.cpp) ----

// EXT_CC_SEND_SCSI_PASSTHRU: the 352-byte record in the request buffer names
// the LUN (sub-code 0 by bus/target/LUN, 1 by FC name or address); data-in
// goes to the response buffer, sense back into the record.
void ioctl_scsi_passthru(IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req);
// EXT_CC_SEND_CT_PASSTHRU: a CT_IU to the fabric's name server.
void ioctl_ct_passthru(const Sim& sim, IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req);
// EXT_CC_SEND_ELS_PASSTHRU: EXT_ELS_PT_REQ and the ELS payload to a remote port.
void ioctl_els_passthru(IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req);

// Answers one request on a descriptor that has `selected` chosen (-1: none;
// the request's HbaSelect then names the instance).
IoctlAnswer ioctl_dispatch(const Sim& sim, const std::vector<IoctlPort>& ports, int32_t selected,
                           const IoctlRequest& req);

// The flash commands: read, update, layout, activation, update capabilities.
void ioctl_flash(const Sim& sim, IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req);
// NVRAM and VPD, read and written (ioctl_image.cpp): the images the port's
// attributes show. A read hands over what fits the response buffer (a VPD
// cut short is a data overrun); a write must fit the image (status 6
// otherwise), and an NVRAM write gets its checksum from the driver.
void ioctl_image(const Sim& sim, IoctlAnswer& ans, const IoctlPort& p, const IoctlRequest& req);

// "EXT_CC_QUERY" etc. for the journal; the number in hexadecimal for others.
std::string ioctl_command_name(uint8_t command);

}  // namespace vxsim::drv
