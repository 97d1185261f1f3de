// Raw bytes for people and files: hex dumps (--raw) and output files (-o).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vxcli {

// The bytes as `hexdump -C` shows them: offset, sixteen bytes in two groups
// of eight, the printable characters; a run of identical lines as one "*";
// the end offset last (nothing at all for no bytes). `offset` is the address of the first byte (a flash
// region's start).
std::string hex_dump(const uint8_t* data, size_t size, uint64_t offset = 0);

// Writes the bytes to `path` whole or not at all: into a new file beside it,
// flushed to disk and renamed over `path` only when complete, so a failed
// run never leaves a cut file where a good one was. "-" is standard output.
// Returns "" or the reason it failed.
std::string write_output(const std::string& path, const void* data, size_t size);

}  // namespace vxcli
