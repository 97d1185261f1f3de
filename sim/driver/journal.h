// The request journal: one JSON line per emulated request, so tests can check
// exactly what was sent. Lines are {"seq", "pid", "ep", ...endpoint fields}.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>

namespace vxsim::drv {

using JournalFields = nlohmann::ordered_json;

// The line for one request (without the trailing newline). `fields` must be
// an object; its keys follow seq, pid and ep in their insertion order.
std::string journal_line(uint64_t seq, long pid, std::string_view ep, const JournalFields& fields);

// Appends one line to `journal_path`. The sequence number comes from the
// counter file `seq_path`, whose flock is held across the append so that
// the numbers in the file ascend across processes; the line itself goes
// out in one O_APPEND write. Returns the sequence number, 0 on failure.
uint64_t journal_append(const std::string& journal_path, const std::string& seq_path, std::string_view ep,
                        const JournalFields& fields);

// "EBUSY" for EBUSY etc.; the number as text for the ones we never produce.
std::string errno_name(int err);

// Adds "result" (on success) or "errno" (on failure) for a result in the
// kernel's convention: >= 0 success, -errno failure.
void journal_result(JournalFields& fields, long result);

// Request numbers and similar codes as "0xc0747900".
std::string hex32(uint32_t v);
// "0x" and `digits` lower-case hexadecimal digits: hex_digits(0x171, 4) is "0x0171".
std::string hex_digits(uint64_t v, int digits);

// Bytes as lower-case hexadecimal without separators ("12000000ff00").
std::string hex_bytes(const uint8_t* p, size_t n);

}  // namespace vxsim::drv
