/* A minimal libvxsdm client: every adapter port with its names and model.
 *
 *   cc list_ports.c $(pkg-config --cflags --libs libvxsdm) -o list_ports
 *   sudo ./list_ports            (or: vxsim run -- ./list_ports)
 */
#include <stdio.h>
#include <string.h>

#include <vxsdm/vsdmgt.h>

static void print_wwn(const char* label, const SD_UINT8 wwn[8]) {
    printf(" %s ", label);
    for (int i = 0; i < 8; i++)
        printf("%02x%s", wwn[i], i < 7 ? ":" : "");
}

int main(void) {
    char version[32];
    SDGetVersion(version);
    SD_UINT32 count = SDGetNumberOfAdapters();
    printf("libvxsdm %s: %u ports\n", version, count);

    int failed = 0;
    for (SD_UINT32 i = 0; i < count; i++) {
        int handle = 0;
        SD_UINT32 status = SDOpenDevice(i, &handle);
        if (status != SDM_STATUS_SUCCESS) {
            fprintf(stderr, "port %u: %s\n", i, SDGetErrorString(status));
            failed = 1;
            continue;
        }
        DEVICENODEPROPERTY node;
        DEVICEPORTPROPERTY port;
        memset(&node, 0, sizeof node);
        memset(&port, 0, sizeof port);
        status = SDGetHbaDeviceNodeProperty(handle, &node);
        if (status == SDM_STATUS_SUCCESS)
            status = SDGetHbaDevicePortProperty(handle, 0, &port);
        if (status == SDM_STATUS_SUCCESS) {
            printf("port %u:", i);
            print_wwn("wwnn", node.WWN);
            print_wwn("wwpn", port.WWN);
            printf(" model %.32s\n", node.Model);
        } else {
            fprintf(stderr, "port %u: %s\n", i, SDGetErrorString(status));
            failed = 1;
        }
        SDCloseDevice(handle);
    }
    return failed;
}
