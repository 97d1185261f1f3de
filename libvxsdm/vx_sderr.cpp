// Status texts and the translation of driver statuses into SD statuses.
// Both are exported, pure apart from tmp_err, and take no lock.
#include <cstdio>
#include <cstdint>
#include <iterator>
#include <utility>

#include "exioct.h"
#include "vsdmgt.h"

namespace {

struct status_text {
    uint32_t code;
    const char* text;
};

// Texts are part of the interface, spelling included ("Fabricdoesn't",
// "FirmaWare", "condition Met").
constexpr status_text sd_status_texts[] = {
    {0x00000000, "No error"},
    {0x20000002, "Invalid command code"},
    {0x20000003, "Invalid version level"},
    {0x20000004, "Logical error"},
    {0x20000005, "Invalid IU size"},
    {0x20000006, "Logical busy"},
    {0x20000007, "Protocol error"},
    {0x20000008, "(09h) No Additional Explanation"},
    {0x20000009, "IE List Not Available"},
    {0x2000000A, "IE Type Not Available"},
    {0x2000000B, "Domain ID Not Available"},
    {0x2000000C, "In-Band Management Address Not Available"},
    {0x2000000D, "Fabric Name Not Available"},
    {0x2000000E, "Logical IE Name Not Available"},
    {0x2000000F, "Management Address List Not Available"},
    {0x20000010, "IE Attributes List Not Available"},
    {0x20000011, "Port List Not Available"},
    {0x20000012, "Port Type Not Available"},
    {0x20000013, "Physical Port ID Not Available"},
    {0x20000014, "Logical Port Name Not Available"},
    {0x20000015, "Attached Port Name List Not Available"},
    {0x20000016, "Port Attributes List Not Available"},
    {0x20000017, "Port State Not Available"},
    {0x20000018, "Unable to Set Logical IE Name"},
    {0x20000019, "Unable to Set Logical Port Name"},
    {0x2000001A, "Authentication Exception"},
    {0x2000001B, "Error: Reserved code"},
    {0x2000001C, "Command not supported"},
    {0x2000001D, "Vendor unique error"},
    {0x2000001E, "Management Server reserved error"},
    {0x2000001F, "Specified buffer is not big enough for all data"},
    {0x20000020, "Port Identifier not registered"},
    {0x20000021, "Port Name not registered"},
    {0x20000022, "Node Name not registered"},
    {0x20000023, "Class of Service not registered"},
    {0x20000024, "IP Address (Node) not registered"},
    {0x20000025, "Initial Process Associator not registered"},
    {0x20000026, "FC-4 Types not registered"},
    {0x20000027, "Symbolic Port Name not registered"},
    {0x20000028, "Symbolic Node Name not registered"},
    {0x20000029, "Port Type not registered"},
    {0x2000002A, "IP Address (Port) not registered"},
    {0x2000002B, "Fabric Port Name not registered"},
    {0x2000002C, "Hard Address not registered"},
    {0x2000002D, "Access Denied"},
    {0x2000002E, "Unacceptable Port Identifier"},
    {0x2000002F, "Database Empty"},
    {0x20000030, "No object registered in the specified scope"},
    {0x20000031, "Invalid WWN (IE or Port)"},
    {0x20000032, "Platform Name does not exist"},
    {0x20000033, "Platform Name already exists"},
    {0x20000034, "Platform Node Name does not exist"},
    {0x20000035, "Platform Node Name already exists"},
    {0x20000036, "Authorization Exception"},
    {0x20000037, "No Response from Management Server/Fabricdoesn't support MS"},
    {0x20000040, "SCSI check condition"},
    {0x20000041, "SCSI condition Met"},
    {0x20000042, "SCSI busy"},
    {0x20000043, "SCSI intermediate"},
    {0x20000044, "SCSI intermediate condition met"},
    {0x20000045, "SCSI reservation conflict"},
    {0x20000046, "SCSI command terminated"},
    {0x20000047, "SCSI queue full"},
    {0x20000049, "SCSI unknown status"},
    {0x20000064, "Invalid parameter"},
    {0x20000065, "Handle to HBA device is invalid"},
    {0x20000066, "Command not supported"},
    {0x20000067, "Device is busy"},
    {0x20000068, "Request pending"},
    {0x20000069, "Request suspended"},
    {0x2000006A, "Request retry pending"},
    {0x2000006B, "Data overrun"},
    {0x2000006C, "Data underrun"},
    {0x2000006D, "Device not found"},
    {0x2000006E, "Copy memory failed"},
    {0x2000006F, "Firmware mailbox failed"},
    {0x20000070, "Invalid command sub-code"},
    {0x20000071, "Unsupported command version"},
    {0x20000072, "Buffer too small"},
    {0x20000073, "Invalid request"},
    {0x20000074, "Out of memory"},
    {0x20000075, "Unknown error"},
    {0x20000076, "Invalid configuration registry setting"},
    {0x20000077, "Buffer content returned not directly from device"},
    {0x2000007D, "NVRam CheckSum is not valid"},
    {0x2000007E, "FirmaWare State is not valid"},
};

// Driver status (index) to SD status. Status 15 is decided by the SCSI
// status byte instead; every status not listed is "not supported".
constexpr uint32_t sd_driver_status_map[] = {
    0x00000000,  // 0
    0x20000075,  // 1
    0x20000067,  // 2
    0x20000068,  // 3
    0x20000069,  // 4
    0x2000006A,  // 5
    0x20000064,  // 6
    0x2000006B,  // 7
    0x2000006C,  // 8
    0x2000006D,  // 9
    0x2000006E,  // 10
    0x2000006F,  // 11
    0x20000070,  // 12
    0x20000071,  // 13
    0x20000037,  // 14
    0x20000049,  // 15 (not used: see SCSI status below)
    0x20000072,  // 16
    0x20000066,  // 17
    0x20000066,  // 18
    0x20000066,  // 19
    0x20000066,  // 20
    0x20000066,  // 21
    0x20000066,  // 22
    0x2000007B,  // 23
    0x20000066,  // 24
    0x20000066,  // 25
    0x20000066,  // 26
    0x20000066,  // 27
    0x20000104,  // 28
    0x20000074,  // 29
    0x20000102,  // 30
    0x20000103,  // 31
    0x20000101,  // 32
    0x20000110,  // 33
};

constexpr std::pair<uint8_t, uint32_t> sd_scsi_status_map[] = {
    {0x00, 0x00000000}, {0x02, 0x20000040}, {0x04, 0x20000041},
    {0x08, 0x20000042}, {0x10, 0x20000043}, {0x14, 0x20000044},
    {0x18, 0x20000045}, {0x22, 0x20000046}, {0x28, 0x20000047},
};

}  // namespace

// Text of the last unknown code; shared by all threads, last writer wins.
char tmp_err[160];

extern "C" VXSD_API char* SDGetErrorString(SD_UINT32 ErrorCode) {
    for (const status_text& entry : sd_status_texts)
        if (entry.code == ErrorCode)
            return const_cast<char*>(entry.text);
    if (ErrorCode > 0x1FFFFFFF)
        snprintf(tmp_err, sizeof tmp_err, "Unknown Error %xh.", ErrorCode);
    else
        snprintf(tmp_err, sizeof tmp_err, "System Error %d.", static_cast<int>(ErrorCode));
    return tmp_err;
}

extern "C" VXSD_API uint32_t SDXlateSDMErr(uint32_t ext_stat, uint32_t ext_dstat) {
    if (ext_stat == EXT_STATUS_SCSI_STATUS) {
        const uint8_t scsi_status = static_cast<uint8_t>(ext_dstat & 0xFF);
        for (const auto& [status, sd] : sd_scsi_status_map)
            if (status == scsi_status)
                return sd;
        return SDM_STATUS_SCSI_UNKNOWN_STATUS;
    }
    if (ext_stat < std::size(sd_driver_status_map))
        return sd_driver_status_map[ext_stat];
    return SDM_STATUS_NOT_SUPPORTED;
}
