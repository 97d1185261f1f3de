// Library load and unload, adapter discovery, and the SD entry points that
// need no adapter record: version, count, open, close.
#include <cstring>

#include "vsdmgt.h"
#include "vx_core.h"
#include "vx_sddbg.h"

extern "C" VXSD_API SD_UINT32 SDGetVersion(char* buf) {
    if (buf)
        memcpy(buf, SDM_VERSION_TEXT, sizeof SDM_VERSION_TEXT);
    return SDM_VERSION_NUMBER;
}
