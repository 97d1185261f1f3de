// Reading a port's VPD as items for people: the identifier and the keyword
// fields, in the order the board stores them. The library gives the bytes
// only, so the walk lives here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vxcli {

struct VpdItem {
    uint8_t tag = 0;      // 0x82, 0x90, 0x91, 0x78, or the keyword's first character
    std::string keyword;  // the two characters of a keyword item, else empty
    std::string data;     // the item's bytes (cut at the end of the walk)
};

struct VpdWalk {
    std::vector<VpdItem> items;
    bool complete = false;        // the end tag was reached
    bool has_checksum = false;    // an "RV" item was reached
    bool checksum_valid = false;  // the bytes through RV's first byte sum to 0
};

// Walks the first 512 bytes at most, as the adapter's boot code does. On
// boards with the one-byte identifier length (`short_identifier`) the
// identifier's data starts at +2. Erased flash (0xFF) ends the walk.
VpdWalk walk_vpd(const uint8_t* vpd, size_t size, bool short_identifier);

// The walk as text, one line per item: the same lines the library's trace
// of a VPD shows.
std::string vpd_text(const VpdWalk& walk);

// What a keyword means ("Serial number"), or "" for one without a fixed meaning.
const char* vpd_keyword_name(const std::string& keyword);

}  // namespace vxcli
