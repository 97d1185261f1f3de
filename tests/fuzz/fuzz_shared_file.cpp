// The shared file as another process (or another user, before the file was
// refused) may have left it: slot flags and owner records of any value. The
// slot bookkeeping must stay within its eight slots and its table whatever
// it finds, and a claim must leave a consistent record. Also the
// /proc/<pid>/stat text the owner checks parse.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "vx_core.h"

namespace {

// Liveness decided by the input: the low bit of the pid's byte sum.
const uint8_t* oracle_bits;
size_t oracle_size;
bool fuzz_alive(const vxapi_libinst_owner& o) {
    if (oracle_size == 0)
        return false;
    return (oracle_bits[o.pid % oracle_size] & 1) != 0;
}

struct free_deleter {
    void operator()(void* p) const { free(p); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The /proc text: the whole input, exactly its size (ASan sees any overread).
    {
        std::unique_ptr<char[]> text(new char[size ? size : 1]);
        memcpy(text.get(), data, size);
        char state = 0;
        uint64_t start = 0;
        vxapi_parse_proc_stat(text.get(), size, &state, &start);
    }

    // The layout's first bytes come from the input, the rest stays zero.
    std::unique_ptr<vxapi_shared_t, free_deleter> shared(static_cast<vxapi_shared_t*>(calloc(1, sizeof(vxapi_shared_t))));
    const size_t flags_size = sizeof shared->libinst_flags;
    const size_t owners_size = 64 * sizeof(vxapi_libinst_owner);  // enough entries to mix every case
    size_t used = 0;
    if (size > 0) {
        const size_t n = size < flags_size ? size : flags_size;
        memcpy(shared->libinst_flags, data, n);
        used = n;
    }
    if (size > used) {
        const size_t n = size - used < owners_size ? size - used : owners_size;
        memcpy(shared->libinst_owner, data + used, n);
        used += n;
    }
    oracle_bits = data + used;
    oracle_size = size - used;

    const vxapi_libinst_owner self{0x7FFFFFFF, 0, 42};
    const uint32_t slot = vxapi_claim_slot(shared.get(), self, fuzz_alive);
    if (slot >= VX_LIBINST_SLOTS || !(shared->libinst_flags[slot] & VX_LIBINST_CLAIMED))
        abort();
    vxapi_count_other_clients(shared.get(), self, fuzz_alive);
    vxapi_release_slot(shared.get(), slot, self, fuzz_alive);
    for (const vxapi_libinst_owner& o : shared->libinst_owner)
        if (o.pid == self.pid && o.start_time == self.start_time)
            abort();  // released owners leave no record
    vxapi_reclaim_dead_slots(shared.get(), fuzz_alive);
    return 0;
}
