// Extended-ioctl framing: filling the request record of either generation,
// the number conversion for older drivers, and the one send path every leaf
// operation on an ioctl port goes through.
#include <sys/ioctl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstring>

#include "exioct.h"
#include "vx_core.h"
#include "vx_sddbg.h"

uint64_t vxapi_ptr_to_64bit(const void* ptr) { return static_cast<uint64_t>(reinterpret_cast<uintptr_t>(ptr)); }

void* vxapi_64bit_to_ptr(uint64_t value) { return reinterpret_cast<void*>(static_cast<uintptr_t>(value)); }

int vxapi_init_ext_ioctl_n(uint16_t subcmd, uint16_t inst, const void* req_ptr, uint32_t req_len, void* resp_ptr,
                           uint32_t resp_len, const vxapi_priv_database* record, EXT_IOCTL* pext) {
    if (!pext)
        return 1;
    memset(pext, 0, sizeof *pext);
    memcpy(&pext->Signature, EXT_SIGNATURE, sizeof pext->Signature);
    pext->AddrMode = EXT_ADDR_MODE;
    pext->Version = EXT_VERSION;
    pext->SubCode = subcmd;
    pext->Instance = inst;
    pext->RequestAdr = vxapi_ptr_to_64bit(req_ptr);
    pext->RequestLen = req_len;
    pext->ResponseAdr = vxapi_ptr_to_64bit(resp_ptr);
    pext->ResponseLen = resp_len;
    pext->VendorSpecificData = EXT_VENDOR_SPECIFIC_DATA;
    if (record)
        pext->HbaSelect = static_cast<uint16_t>(record->drvr_inst);
    return 0;
}

int vxapi_init_ext_ioctl_o(uint16_t subcmd, uint16_t inst, const void* req_ptr, uint32_t req_len, void* resp_ptr,
                           uint32_t resp_len, const vxapi_priv_database* record, EXT_IOCTL_O* pext) {
    if (!pext)
        return 1;
    // The older record carries 32-bit addresses; a buffer above 4 GiB cannot
    // be named in it (vxapi_send_ext_ioctl stages such buffers low first).
    const uint64_t req = vxapi_ptr_to_64bit(req_ptr);
    const uint64_t resp = vxapi_ptr_to_64bit(resp_ptr);
    if (req > UINT32_MAX || resp > UINT32_MAX)
        return 1;
    memset(pext, 0, sizeof *pext);
    memcpy(pext->Signature, EXT_SIGNATURE, sizeof pext->Signature);
    pext->AddrMode = EXT_ADDR_MODE;
    pext->Version = EXT_VERSION_O;
    pext->SubCode = subcmd;
    pext->Instance = inst;
    pext->RequestAdr = static_cast<uint32_t>(req);
    pext->RequestLen = req_len;
    pext->ResponseAdr = static_cast<uint32_t>(resp);
    pext->ResponseLen = resp_len;
    pext->VendorSpecificData = static_cast<uint32_t>(EXT_VENDOR_SPECIFIC_DATA);
    if (record)
        pext->HbaSelect = static_cast<uint16_t>(record->drvr_inst);
    return 0;
}

// Keeps type and number; the size field becomes the 4 bytes older drivers register.
uint32_t convert_ioctl(uint32_t code) { return (code & 0xFFFFu) | 0xC0040000u; }

int sdm_ioctl(int fd, uint32_t req, void* pext, const vxapi_priv_database* record) {
    if (!record || !(record->features & VX_FEAT_NEW_IOCTL))
        req = convert_ioctl(req);
    return ioctl(fd, static_cast<unsigned long>(req), pext);
}

namespace {

// Memory below 4 GiB for the older record generation, whose addresses are
// 32 bits wide. Unmapped when it goes out of scope.
class low_buffer {
public:
    explicit low_buffer(size_t size) : size_(size) {
        if (size_ == 0)
            return;
        void* p = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | low_flag(), -1, 0);
        if (p != MAP_FAILED && vxapi_ptr_to_64bit(p) + size_ <= UINT32_MAX)
            data_ = p;
        else if (p != MAP_FAILED)
            munmap(p, size_);
    }
    ~low_buffer() {
        if (data_)
            munmap(data_, size_);
    }
    low_buffer(const low_buffer&) = delete;
    low_buffer& operator=(const low_buffer&) = delete;
    void* data() const { return data_; }

private:
    static int low_flag() {
#ifdef MAP_32BIT
        return MAP_32BIT;
#else
        return 0;
#endif
    }
    size_t size_;
    void* data_ = nullptr;
};

bool fits_32bit(const void* p, uint32_t len) { return !p || vxapi_ptr_to_64bit(p) + len <= UINT32_MAX; }

// `req_back` is the request again when the driver writes into it too (the
// pass-through records carry sense back): a staged copy is copied back.
int send_ext(int handle, const vxapi_priv_database* record, uint8_t command, uint16_t subcode, uint16_t instance,
             const void* req, void* req_back, uint32_t req_len, void* resp, uint32_t resp_len, uint32_t* pext_stat,
             uint32_t* pext_dstat, vxapi_ext_answer* answer, uint32_t reserved1) {
    if (!record)
        return 1;
    const uint32_t number = ext_ioctl_number(command);
    if (record->features & VX_FEAT_NEW_IOCTL) {
        EXT_IOCTL ext;
        if (vxapi_init_ext_ioctl_n(subcode, instance, req, req_len, resp, resp_len, record, &ext) != 0)
            return 1;
        ext.Reserved1 = reserved1;
        const int rc = sdm_ioctl(handle, number, &ext, record);
        if (pext_stat)
            *pext_stat = ext.Status;
        if (pext_dstat)
            *pext_dstat = ext.DetailStatus;
        if (answer)
            *answer = {ext.Instance, ext.HbaSelect};
        return rc;
    }

    // Older generation: stage buffers that lie above 4 GiB.
    low_buffer low_req(req && !fits_32bit(req, req_len) ? req_len : 0);
    low_buffer low_resp(resp && !fits_32bit(resp, resp_len) ? resp_len : 0);
    const void* sent_req = req;
    void* sent_resp = resp;
    if (req && !fits_32bit(req, req_len)) {
        if (!low_req.data())
            return 1;
        memcpy(low_req.data(), req, req_len);
        sent_req = low_req.data();
    }
    if (resp && !fits_32bit(resp, resp_len)) {
        if (!low_resp.data())
            return 1;
        memcpy(low_resp.data(), resp, resp_len);
        sent_resp = low_resp.data();
    }
    EXT_IOCTL_O ext;
    if (vxapi_init_ext_ioctl_o(subcode, instance, sent_req, req_len, sent_resp, resp_len, record, &ext) != 0)
        return 1;
    ext.Reserved1 = reserved1;
    const int rc = sdm_ioctl(handle, number, &ext, record);
    const int saved = errno;
    if (sent_resp != resp)
        memcpy(resp, sent_resp, resp_len);
    if (req_back && sent_req != req)
        memcpy(req_back, sent_req, req_len);
    if (pext_stat)
        *pext_stat = ext.Status;
    if (pext_dstat)
        *pext_dstat = ext.DetailStatus;
    if (answer)
        *answer = {ext.Instance, ext.HbaSelect};
    errno = saved;
    return rc;
}

}  // namespace

int vxapi_send_ext_ioctl(int handle, const vxapi_priv_database* record, uint8_t command, uint16_t subcode,
                         uint16_t instance, const void* req, uint32_t req_len, void* resp, uint32_t resp_len,
                         uint32_t* pext_stat, uint32_t* pext_dstat, vxapi_ext_answer* answer,
                         uint32_t reserved1) {
    return send_ext(handle, record, command, subcode, instance, req, nullptr, req_len, resp, resp_len, pext_stat,
                    pext_dstat, answer, reserved1);
}

int vxapi_send_ext_ioctl_inout(int handle, const vxapi_priv_database* record, uint8_t command, uint16_t subcode,
                               void* req, uint32_t req_len, void* resp, uint32_t resp_len, uint32_t* pext_stat,
                               uint32_t* pext_dstat) {
    return send_ext(handle, record, command, subcode, 0, req, req, req_len, resp, resp_len, pext_stat, pext_dstat,
                    nullptr, 0);
}
