// Lists what the SNIA Common HBA API wrapper finds through /etc/hba.conf:
// each adapter with its port, and each discovered port by index.
//
//   vxhbalist [-d]    -d: the discovered ports too
//
// Exit status: 0 when the wrapper loaded and listed, 1 when it did not load.
#include <time.h>

#include <hbaapi.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

std::string wwn_text(const HBA_WWN& w) {
    char text[24];
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x", w.wwn[0], w.wwn[1], w.wwn[2], w.wwn[3],
             w.wwn[4], w.wwn[5], w.wwn[6], w.wwn[7]);
    return text;
}

const char* state_text(HBA_PORTSTATE state) {
    switch (state) {
    case HBA_PORTSTATE_ONLINE: return "online";
    case HBA_PORTSTATE_OFFLINE: return "offline";
    case HBA_PORTSTATE_LINKDOWN: return "link-down";
    case HBA_PORTSTATE_UNKNOWN: return "unknown";
    default: return "other";
    }
}

}  // namespace

int main(int argc, char** argv) {
    const bool discovered = argc > 1 && strcmp(argv[1], "-d") == 0;
    const HBA_STATUS load = HBA_LoadLibrary();
    if (load != HBA_STATUS_OK) {
        fprintf(stderr, "vxhbalist: the wrapper did not load (status %u); see /etc/hba.conf\n", load);
        return 1;
    }
    const HBA_UINT32 count = HBA_GetNumberOfAdapters();
    printf("%u adapter(s)\n", count);
    for (HBA_UINT32 i = 0; i < count; ++i) {
        char name[256] = {};
        if (HBA_GetAdapterName(i, name) != HBA_STATUS_OK) {
            printf("%u: (no name)\n", i);
            continue;
        }
        const HBA_HANDLE h = HBA_OpenAdapter(name);
        if (h == 0) {
            printf("%s: does not open\n", name);
            continue;
        }
        HBA_ADAPTERATTRIBUTES a;
        HBA_PORTATTRIBUTES p;
        if (HBA_GetAdapterAttributes(h, &a) != HBA_STATUS_OK || HBA_GetAdapterPortAttributes(h, 0, &p) != HBA_STATUS_OK) {
            printf("%s: no attributes\n", name);
            HBA_CloseAdapter(h);
            continue;
        }
        printf("%s  model %.64s  serial %.64s  node %s  port %s  id 0x%06x  %s  %u discovered\n", name, a.Model,
               a.SerialNumber, wwn_text(a.NodeWWN).c_str(), wwn_text(p.PortWWN).c_str(), p.PortFcId,
               state_text(p.PortState), p.NumberofDiscoveredPorts);
        for (HBA_UINT32 d = 0; discovered; ++d) {
            HBA_PORTATTRIBUTES r;
            if (HBA_GetDiscoveredPortAttributes(h, 0, d, &r) != HBA_STATUS_OK)
                break;
            printf("  %u: port %s  node %s  id 0x%06x  %.64s\n", d, wwn_text(r.PortWWN).c_str(),
                   wwn_text(r.NodeWWN).c_str(), r.PortFcId, r.OSDeviceName);
        }
        HBA_CloseAdapter(h);
    }
    HBA_FreeLibrary();
    return 0;
}
