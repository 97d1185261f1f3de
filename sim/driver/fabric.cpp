#include "fabric.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>

#include "bigendian.h"
#include "stats.h"

namespace vxsim::drv {

namespace {

constexpr uint32_t WELL_KNOWN_FIRST = 0xFFF000;
constexpr uint8_t FC4_FCP = 0x08;

// Switches name their ports from their own name and the port's area.
uint64_t fabric_port(uint64_t explicit_name, uint64_t fabric_name, uint32_t port_id) {
    if (explicit_name)
        return explicit_name;
    return (uint64_t(0x20) << 56) | (uint64_t((port_id >> 8) & 0xFF) << 48) | (fabric_name & 0xFFFFFFFFFFFFull);
}

// FC-4 types as the name server keeps them: bit T%32 of big-endian word T/32.
void put_fc4_bitmap(uint8_t* p, const std::vector<uint8_t>& types) {
    std::memset(p, 0, 32);
    for (uint8_t t : types)
        p[(t / 32) * 4 + 3 - (t % 32) / 8] |= static_cast<uint8_t>(1u << (t % 8));
}

bool has_type(const NsEntry& e, uint8_t type) {
    return std::find(e.fc4_types.begin(), e.fc4_types.end(), type) != e.fc4_types.end();
}

class Ct {
public:
    Ct(const uint8_t* req, size_t len) : req_(req), len_(len) {
        answer_.command = static_cast<uint16_t>(get_be(req + 8, 2));
        max_words_ = static_cast<uint16_t>(get_be(req + 10, 2));
    }

    uint32_t port_id_arg() const { return static_cast<uint32_t>(get_be(req_ + CT_HEADER_SIZE + 1, 3)); }
    bool has_args(size_t n) const { return len_ >= CT_HEADER_SIZE + n; }
    const uint8_t* args() const { return req_ + CT_HEADER_SIZE; }

    CtAnswer reject(uint8_t reason, uint8_t explanation) {
        answer_.code = CT_REJECT;
        answer_.reason = reason;
        answer_.explanation = explanation;
        answer_.bytes = header(CT_REJECT);
        answer_.bytes[13] = reason;
        answer_.bytes[14] = explanation;
        return answer_;
    }

    CtAnswer accept(const std::vector<uint8_t>& payload) {
        answer_.code = CT_ACCEPT;
        answer_.bytes = header(CT_ACCEPT);
        size_t n = payload.size();
        // The requester's maximum size (in words, 0: none) cuts the payload;
        // the residual tells it how much more there was.
        if (max_words_ && n > size_t(max_words_) * 4) {
            n = size_t(max_words_) * 4;
            answer_.residual = static_cast<uint16_t>((payload.size() - n + 3) / 4);
            put_be(&answer_.bytes[10], answer_.residual, 2);
        }
        answer_.bytes.insert(answer_.bytes.end(), payload.begin(), payload.begin() + static_cast<ptrdiff_t>(n));
        return answer_;
    }

    uint16_t command() const { return answer_.command; }

private:
    std::vector<uint8_t> header(uint16_t code) const {
        std::vector<uint8_t> h(CT_HEADER_SIZE, 0);
        std::memcpy(h.data(), req_, 8);  // revision, IN_ID, GS type and subtype, options
        put_be(&h[8], code, 2);
        return h;
    }

    const uint8_t* req_;
    size_t len_;
    uint16_t max_words_ = 0;
    CtAnswer answer_;
};

std::vector<uint8_t> ga_nxt_payload(const NsEntry& e) {
    std::vector<uint8_t> p(GA_NXT_SIZE, 0);
    p[0] = e.port_type;
    put_be(&p[1], e.port_id, 3);
    put_be(&p[4], e.wwpn, 8);
    const size_t sym = std::min<size_t>(e.symbolic_port_name.size(), 255);
    p[12] = static_cast<uint8_t>(sym);
    std::memcpy(&p[13], e.symbolic_port_name.data(), sym);
    put_be(&p[268], e.wwnn, 8);
    // Symbolic node name, initial process associator, IP address: not registered.
    put_be(&p[556], 0x00000008, 4);  // class of service: class 3
    put_fc4_bitmap(&p[560], e.fc4_types);
    put_be(&p[608], e.fabric_port_name, 8);
    return p;
}

}  // namespace

const HostPort* find_host_port(const Scenario& s, uint32_t host_no) {
    for (const Adapter& a : s.adapters)
        for (const PciFunction& f : a.functions) {
            if (f.port.host_no == host_no)
                return &f.port;
            for (const HostPort& v : f.vports)
                if (v.host_no == host_no)
                    return &v;
        }
    return nullptr;
}

const RemotePort* find_rport(const HostPort& h, const std::string& name) {
    for (const RemotePort& r : h.remote_ports) {
        char buf[48];
        std::snprintf(buf, sizeof buf, "rport-%u:%u-%u", h.host_no, r.channel, r.number);
        if (name == buf)
            return &r;
    }
    return nullptr;
}

bool on_fabric(const HostPort& h) {
    return h.link_state == "Link Up - F_Port" || h.link_state == "Link Up - FL_Port";
}

std::vector<NsEntry> name_server_entries(const Scenario& s, const HostPort& h) {
    std::map<uint32_t, NsEntry> db;  // by port id: each port once, in order
    auto add = [&](NsEntry e) {
        if (e.port_id < WELL_KNOWN_FIRST)
            db.emplace(e.port_id, std::move(e));
    };
    auto host = [&](const HostPort& p) {
        if (!on_fabric(p) || p.fabric_name != h.fabric_name)
            return;
        add({0x01, p.port_id, p.wwpn, p.wwnn, p.symbolic_name, {FC4_FCP}, fabric_port(0, p.fabric_name, p.port_id)});
        for (const RemotePort& r : p.remote_ports) {
            if (r.state == "Not Present")
                continue;
            std::vector<uint8_t> types;
            if (r.fc4_types)
                types = *r.fc4_types;
            else if (r.roles.find("FCP") != std::string::npos)
                types = {FC4_FCP};
            add({0x01, r.port_id, r.wwpn, r.wwnn, r.symbolic_name, std::move(types),
                 fabric_port(r.fabric_port_name, p.fabric_name, r.port_id)});
        }
    };
    if (!on_fabric(h))
        return {};
    for (const Adapter& a : s.adapters)
        for (const PciFunction& f : a.functions) {
            host(f.port);
            for (const HostPort& v : f.vports)
                host(v);
        }
    std::vector<NsEntry> out;
    for (auto& [id, e] : db)
        out.push_back(std::move(e));
    return out;
}

CtAnswer ct_not_supported(const uint8_t* req, size_t len) {
    return Ct(req, len).reject(CT_REASON_NOT_SUPPORTED, CT_EXPL_NONE);
}

CtAnswer name_server(const std::vector<NsEntry>& db, const uint8_t* req, size_t len) {
    Ct ct(req, len);
    if (req[0] != 0x01)
        return ct.reject(CT_REASON_INVALID_VERSION, CT_EXPL_NONE);
    if (req[4] != GS_TYPE_DIRECTORY || req[5] != GS_SUBTYPE_NAME_SERVER)
        return ct.reject(CT_REASON_NOT_SUPPORTED, CT_EXPL_NONE);

    auto by_id = [&](uint32_t id) -> const NsEntry* {
        for (const NsEntry& e : db)
            if (e.port_id == id)
                return &e;
        return nullptr;
    };
    const uint16_t command = ct.command();
    switch (command) {
    case CT_GA_NXT: {
        if (!ct.has_args(4))
            return ct.reject(CT_REASON_INVALID_IU_SIZE, CT_EXPL_NONE);
        if (db.empty())
            return ct.reject(CT_REASON_UNABLE_TO_PERFORM, CT_EXPL_PORT_ID_NOT_REGISTERED);
        // The next port after the one given, wrapping round to the first.
        const uint32_t after = ct.port_id_arg();
        auto next = std::find_if(db.begin(), db.end(), [&](const NsEntry& e) { return e.port_id > after; });
        return ct.accept(ga_nxt_payload(next == db.end() ? db.front() : *next));
    }
    case CT_GPN_ID:
    case CT_GNN_ID:
    case CT_GFT_ID: {
        if (!ct.has_args(4))
            return ct.reject(CT_REASON_INVALID_IU_SIZE, CT_EXPL_NONE);
        const NsEntry* e = by_id(ct.port_id_arg());
        if (!e)
            return ct.reject(CT_REASON_UNABLE_TO_PERFORM, CT_EXPL_PORT_ID_NOT_REGISTERED);
        std::vector<uint8_t> p(command == CT_GFT_ID ? 32 : 8);
        if (command == CT_GFT_ID)
            put_fc4_bitmap(p.data(), e->fc4_types);
        else
            put_be(p.data(), command == CT_GPN_ID ? e->wwpn : e->wwnn, 8);
        return ct.accept(p);
    }
    case CT_GID_PN: {
        if (!ct.has_args(8))
            return ct.reject(CT_REASON_INVALID_IU_SIZE, CT_EXPL_NONE);
        const uint64_t wwpn = get_be(ct.args(), 8);
        for (const NsEntry& e : db)
            if (e.wwpn == wwpn) {
                std::vector<uint8_t> p(4, 0);
                put_be(&p[1], e.port_id, 3);
                return ct.accept(p);
            }
        return ct.reject(CT_REASON_UNABLE_TO_PERFORM, CT_EXPL_PORT_NAME_NOT_REGISTERED);
    }
    case CT_GID_FT: {
        if (!ct.has_args(4))
            return ct.reject(CT_REASON_INVALID_IU_SIZE, CT_EXPL_NONE);
        // Scope: a domain (byte 1) and within it an area (byte 2); 0 is any.
        const uint8_t domain = ct.args()[1], area = ct.args()[2], type = ct.args()[3];
        std::vector<uint8_t> p;
        for (const NsEntry& e : db) {
            if (!has_type(e, type) || (domain && (e.port_id >> 16) != domain) ||
                (domain && area && ((e.port_id >> 8) & 0xFF) != area))
                continue;
            p.insert(p.end(), {0, static_cast<uint8_t>(e.port_id >> 16), static_cast<uint8_t>(e.port_id >> 8),
                               static_cast<uint8_t>(e.port_id)});
        }
        if (p.empty())
            return ct.reject(CT_REASON_UNABLE_TO_PERFORM, CT_EXPL_FC4_TYPES_NOT_REGISTERED);
        p[p.size() - 4] = 0x80;  // last entry
        return ct.accept(p);
    }
    default: return ct.reject(CT_REASON_INVALID_COMMAND, CT_EXPL_NONE);
    }
}

ElsAnswer els_answer(const HostPort& via, const RemotePort& to, const uint8_t* payload, size_t len) {
    ElsAnswer a;
    a.command = len ? payload[0] : 0;
    auto reject = [&](uint8_t reason) {
        a.accepted = false;
        a.reason = reason;
        a.bytes = {ELS_LS_RJT, 0, 0, 0, 0, reason, 0, 0};
        return a;
    };
    // The link error status block at `at`, counters big-endian in order.
    auto put_link_errors = [&](size_t at) {
        for (uint32_t counter : remote_link_errors(to)) {
            put_be(&a.bytes[at], counter, 4);
            at += 4;
        }
    };
    if (len < 4)
        return reject(LS_RJT_LOGICAL_ERROR);  // not even a command word
    a.accepted = true;
    switch (a.command) {
    case ELS_ECHO:
        a.bytes.assign(payload, payload + len);
        a.bytes[0] = ELS_LS_ACC;
        return a;
    case ELS_RNID: {
        const uint8_t format = len > 4 ? payload[4] : 0;
        const bool topology = format == RNID_FORMAT_TOPOLOGY;
        a.bytes.assign(8 + 16 + (topology ? 52 : 0), 0);
        a.bytes[0] = ELS_LS_ACC;
        a.bytes[4] = topology ? format : 0;  // formats we do not know get the common data only
        a.bytes[5] = 16;
        a.bytes[7] = topology ? 52 : 0;
        put_be(&a.bytes[8], to.wwpn, 8);
        put_be(&a.bytes[16], to.wwnn, 8);
        if (topology) {
            uint8_t* t = &a.bytes[24];
            const std::string vendor = to.luns.empty() ? std::string("VARNEX") : to.luns.front().vendor;
            std::memset(t, ' ', 16);
            std::memcpy(t, vendor.data(), std::min<size_t>(vendor.size(), 16));
            const bool target = to.roles.find("FCP Target") != std::string::npos;
            put_be(t + 16, target ? 0x0B : 0x0A, 4);  // storage subsystem or host
            put_be(t + 20, to.number, 4);             // physical port number
        }
        return a;
    }
    case ELS_RLS:
        // Word 1 names the port whose block is asked for: only its own.
        if (len < 8)
            return reject(LS_RJT_LOGICAL_ERROR);
        if (get_be(payload + 5, 3) != to.port_id)
            return reject(LS_RJT_UNABLE_TO_PERFORM);
        a.bytes.assign(RLS_ACC_SIZE, 0);
        a.bytes[0] = ELS_LS_ACC;
        put_link_errors(4);
        return a;
    case ELS_RPS: {
        // The flag (word 1, low byte) says how words 2-3 select the port:
        // none (the receiver itself), its port number in word 3, or its name.
        if (len < 16)
            return reject(LS_RJT_LOGICAL_ERROR);
        const uint8_t flag = payload[7];
        const bool self = flag == 0 || (flag == RPS_BY_PORT_NUMBER && get_be(payload + 12, 4) == to.number) ||
                          (flag == RPS_BY_PORT_NAME && get_be(payload + 8, 8) == to.wwpn);
        if (flag > RPS_BY_PORT_NAME)
            return reject(LS_RJT_LOGICAL_ERROR);
        if (!self)
            return reject(LS_RJT_UNABLE_TO_PERFORM);
        const bool loop = via.link_state.find("Loop") != std::string::npos ||
                          via.link_state.find("FL_Port") != std::string::npos;
        const uint16_t status = static_cast<uint16_t>((loop ? PORT_STATUS_LOOP : PORT_STATUS_N_PORT) |
                                                      (on_fabric(via) ? PORT_STATUS_FABRIC : 0));
        a.bytes.assign(RPS_ACC_SIZE, 0);
        a.bytes[0] = ELS_LS_ACC;
        a.bytes[7] = flag;
        put_be(&a.bytes[10], status, 2);
        put_link_errors(12);
        return a;
    }
    default:
        return reject(LS_RJT_NOT_SUPPORTED);
    }
}

}  // namespace vxsim::drv
