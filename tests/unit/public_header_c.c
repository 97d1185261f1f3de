/* The public header must stay plain C: this file is compiled as C11 with
 * the test build's warnings. */
#include "vsdmgt.h"

SD_UINT32 vx_c_header_probe(void);

SD_UINT32 vx_c_header_probe(void) {
    DEVICENODEPROPERTY node;
    DEVICEINFO info;
    node.NumberOfPorts = 1;
    info.TotalDevices = 0;
    return (SD_UINT32)sizeof node + info.TotalDevices + node.NumberOfPorts + SDM_STATUS_SUCCESS;
}
