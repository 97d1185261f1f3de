// Status texts and driver-status translation.
#include <gtest/gtest.h>

#include <string>

#include "vsdmgt.h"

namespace {

struct TextCase {
    uint32_t code;
    const char* text;
};

// Texts callers compare against, spelling quirks included.
TEST(StatusText, KnownCodes) {
    const TextCase known[] = {
        {0x00000000, "No error"}, {0x20000002, "Invalid command code"},
        {0x20000008, "(09h) No Additional Explanation"},
        {0x2000001F, "Specified buffer is not big enough for all data"},
        {0x20000031, "Invalid WWN (IE or Port)"},
        {0x20000037, "No Response from Management Server/Fabricdoesn't support MS"},
        {0x20000040, "SCSI check condition"}, {0x20000041, "SCSI condition Met"},
        {0x20000049, "SCSI unknown status"}, {0x20000065, "Handle to HBA device is invalid"},
        {0x20000072, "Buffer too small"}, {0x20000077, "Buffer content returned not directly from device"},
        {0x2000007D, "NVRam CheckSum is not valid"}, {0x2000007E, "FirmaWare State is not valid"},
    };
    for (const TextCase& c : known)
        EXPECT_STREQ(SDGetErrorString(c.code), c.text) << std::hex << c.code;
}

TEST(StatusText, UnknownCodesAreFormatted) {
    const TextCase unknown[] = {
        {0x20000048, "Unknown Error 20000048h."},  // a gap in the SCSI range
        {0x2000007B, "Unknown Error 2000007bh."},  // returned by the library, no text on purpose
        {0x80000000, "Unknown Error 80000000h."}, {0x20000000, "Unknown Error 20000000h."},
        {0x20000110, "Unknown Error 20000110h."}, {5, "System Error 5."}, {0x1FFFFFFF, "System Error 536870911."},
    };
    for (const TextCase& c : unknown)
        EXPECT_STREQ(SDGetErrorString(c.code), c.text) << std::hex << c.code;
}

TEST(StatusText, UnknownTextIsOverwrittenByTheNextUnknownCode) {
    const char* first = SDGetErrorString(7);
    const std::string first_copy = first;
    const char* second = SDGetErrorString(0x20000050);
    EXPECT_EQ(first, second);  // one shared buffer
    EXPECT_EQ(first_copy, "System Error 7.");
    EXPECT_STREQ(second, "Unknown Error 20000050h.");
    // A known code does not touch the shared buffer.
    SDGetErrorString(0x20000065);
    EXPECT_STREQ(second, "Unknown Error 20000050h.");
}

TEST(StatusTranslation, EveryDriverStatus) {
    // Expected SD status by driver status 0..40 (15 is decided by the SCSI byte, tested below).
    const uint32_t expected[] = {
        0x00000000, 0x20000075, 0x20000067, 0x20000068, 0x20000069, 0x2000006A, 0x20000064,
        0x2000006B, 0x2000006C, 0x2000006D, 0x2000006E, 0x2000006F, 0x20000070, 0x20000071,
        0x20000037, 0,          0x20000072, 0x20000066, 0x20000066, 0x20000066, 0x20000066,
        0x20000066, 0x20000066, 0x2000007B, 0x20000066, 0x20000066, 0x20000066, 0x20000066,
        0x20000104, 0x20000074, 0x20000102, 0x20000103, 0x20000101, 0x20000110, 0x20000066,
        0x20000066, 0x20000066, 0x20000066, 0x20000066, 0x20000066, 0x20000066,
    };
    for (uint32_t status = 0; status < std::size(expected); ++status) {
        if (status == 15)
            continue;
        EXPECT_EQ(SDXlateSDMErr(status, 0), expected[status]) << "driver status " << status;
        // The detail status only matters for the SCSI status.
        EXPECT_EQ(SDXlateSDMErr(status, 0x1234), expected[status]) << "driver status " << status;
    }
    EXPECT_EQ(SDXlateSDMErr(0xFFFFFFFF, 0), 0x20000066u);
    EXPECT_EQ(SDXlateSDMErr(1000, 2), 0x20000066u);
}

TEST(StatusTranslation, ScsiStatusByLowByteOfDetail) {
    const std::pair<uint32_t, uint32_t> cases[] = {
        {0x00, 0x00000000}, {0x02, 0x20000040}, {0x04, 0x20000041}, {0x08, 0x20000042},
        {0x10, 0x20000043}, {0x14, 0x20000044}, {0x18, 0x20000045}, {0x22, 0x20000046},
        {0x28, 0x20000047}, {0x01, 0x20000049}, {0x06, 0x20000049}, {0xFF, 0x20000049},
        {0x102, 0x20000040}, {0xABCD0028, 0x20000047}, {0x100, 0x00000000},  // only the low byte counts
    };
    for (const auto& [detail, sd] : cases)
        EXPECT_EQ(SDXlateSDMErr(15, detail), sd) << std::hex << "detail " << detail;
}

TEST(Version, TextAndNumber) {
    char buf[32];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(SDGetVersion(buf), 0x06040C00u);
    EXPECT_STREQ(buf, "v6.04 build12");
    EXPECT_EQ(buf[14], 'x');  // nothing beyond the terminator
    EXPECT_EQ(SDGetVersion(nullptr), 0x06040C00u);
}

}  // namespace
