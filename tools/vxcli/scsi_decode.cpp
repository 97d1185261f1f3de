// Decoders of pass-through replies; see scsi_decode.h.
#include "scsi_decode.h"

#include <algorithm>
#include <cstdio>

namespace vxcli::scsi {

namespace {

uint64_t be(const uint8_t* p, size_t n) {
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i)
        v = v << 8 | p[i];
    return v;
}

// Bytes [from, from + n) of the data as text, trailing blanks and NULs removed.
std::string text(const uint8_t* data, size_t size, size_t from, size_t n) {
    if (from >= size)
        return {};
    std::string s(reinterpret_cast<const char*>(data) + from, std::min(n, size - from));
    while (!s.empty() && (s.back() == ' ' || s.back() == '\0'))
        s.pop_back();
    return s;
}

// The LUN number by the addressing method in the top two bits.
uint32_t lun_number(const uint8_t* b) {
    switch (b[0] >> 6) {
    case 0: return b[1];                                     // peripheral
    case 1: return static_cast<uint32_t>(b[0] & 0x3F) << 8 | b[1];  // flat space
    case 2: return b[1] & 0x1F;                              // logical unit
    default: return UINT32_MAX;                              // extended
    }
}

}  // namespace

std::optional<Inquiry> decode_inquiry(const uint8_t* data, size_t size) {
    if (!data || size == 0)
        return std::nullopt;
    Inquiry q;
    q.qualifier = data[0] >> 5;
    q.device_type = data[0] & 0x1F;
    q.version = size > 2 ? data[2] : 0;
    q.vendor = text(data, size, 8, 8);
    q.product = text(data, size, 16, 16);
    q.revision = text(data, size, 32, 4);
    return q;
}

std::string device_type_name(uint8_t type) {
    static const char* const names[] = {"disk", "tape", "printer", "processor", "worm", "cd/dvd", "scanner",
                                        "optical", "changer", "comm", nullptr, nullptr, "raid", "enclosure"};
    if (type < sizeof names / sizeof names[0] && names[type])
        return names[type];
    char buf[8];
    snprintf(buf, sizeof buf, "0x%02x", type);
    return buf;
}

std::optional<Capacity> decode_read_capacity(const uint8_t* data, size_t size) {
    if (!data || size < 8)
        return std::nullopt;
    return Capacity{be(data, 4) + 1, static_cast<uint32_t>(be(data + 4, 4))};
}

std::optional<LunList> decode_report_luns(const uint8_t* data, size_t size) {
    if (!data || size < 8)
        return std::nullopt;
    LunList list;
    list.length = static_cast<uint32_t>(be(data, 4));
    const size_t end = std::min<size_t>(size, 8 + static_cast<size_t>(list.length));
    for (size_t at = 8; at + 8 <= end; at += 8) {
        Lun l;
        std::copy(data + at, data + at + 8, l.bytes);
        l.number = lun_number(l.bytes);
        list.luns.push_back(l);
    }
    return list;
}

std::optional<Sense> decode_sense(const uint8_t* data, size_t size) {
    if (!data || size < 14 || ((data[0] & 0x7F) != 0x70 && (data[0] & 0x7F) != 0x71))
        return std::nullopt;
    return Sense{static_cast<uint8_t>(data[2] & 0x0F), data[12], data[13]};
}

std::string sense_key_name(uint8_t key) {
    static const char* const names[16] = {"NO SENSE",        "RECOVERED ERROR", "NOT READY",      "MEDIUM ERROR",
                                          "HARDWARE ERROR",  "ILLEGAL REQUEST", "UNIT ATTENTION", "DATA PROTECT",
                                          "BLANK CHECK",     "VENDOR SPECIFIC", "COPY ABORTED",   "ABORTED COMMAND",
                                          "RESERVED",        "VOLUME OVERFLOW", "MISCOMPARE",     "COMPLETED"};
    return names[key & 0x0F];
}

std::vector<uint8_t> ct_request(uint16_t command, uint32_t argument) {
    std::vector<uint8_t> r(CT_HEADER + 4, 0);
    r[0] = 0x01;  // revision
    r[4] = 0xFC;  // directory service
    r[5] = 0x02;  // name server
    r[8] = static_cast<uint8_t>(command >> 8);
    r[9] = static_cast<uint8_t>(command);
    for (int i = 0; i < 4; ++i)
        r[CT_HEADER + i] = static_cast<uint8_t>(argument >> (8 * (3 - i)));
    return r;
}

std::optional<CtReply> decode_ct(const uint8_t* data, size_t size) {
    if (!data || size < CT_HEADER)
        return std::nullopt;
    CtReply r;
    r.code = static_cast<uint16_t>(be(data + 8, 2));
    r.reason = data[13];
    r.explanation = data[14];
    r.payload = data + CT_HEADER;
    r.payload_size = size - CT_HEADER;
    return r;
}

std::vector<uint32_t> decode_port_ids(const CtReply& reply) {
    std::vector<uint32_t> ids;
    if (reply.code != CT_ACCEPT || !reply.payload)
        return ids;
    for (size_t at = 0; at + 4 <= reply.payload_size; at += 4) {
        ids.push_back(static_cast<uint32_t>(be(reply.payload + at + 1, 3)));
        if (reply.payload[at] & 0x80)  // the last entry
            break;
    }
    return ids;
}

std::optional<uint64_t> decode_name(const CtReply& reply) {
    if (reply.code != CT_ACCEPT || !reply.payload || reply.payload_size < 8)
        return std::nullopt;
    return be(reply.payload, 8);
}

}  // namespace vxcli::scsi
