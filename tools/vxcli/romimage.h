// PCI expansion-ROM images as vxcli checks them before a boot-code write
// and compares them after it: the chain of images of a file, and the bytes
// the library carries over from the adapter (settings, subsystem vendor,
// checksum), which a read-back may show changed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vxcli {

struct RomImage {
    size_t at = 0;    // image start in the buffer
    size_t len = 0;   // ImageLength * 512
    uint8_t code_type = 0;
};

// The images of `data` from its start (an image directory "QFIM" in front
// is stepped over) up to the last-image flag. "" when the chain is sound,
// else what is wrong with it; never reads outside `data`.
std::string rom_images(const uint8_t* data, size_t size, std::vector<RomImage>* images);

// True when every byte where `a` and `b` differ lies in what a boot-code
// update keeps from the adapter: in an x86 image of `a`, the settings block
// (the 512 bytes after "MEISP "), the subsystem vendor bytes 32-33 and the
// checksum byte.
bool differs_only_in_kept_bytes(const uint8_t* a, const uint8_t* b, size_t size);

}  // namespace vxcli
