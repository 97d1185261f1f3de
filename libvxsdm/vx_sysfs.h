// sysfs transport: mount path, path builders, attribute readers, raw file
// and byte helpers, adapter discovery, and the vxsysfs_ twins of the leaf
// operations.
#pragma once

#include <sysfs/libsysfs.h>

#include <cstddef>
#include <cstdint>

#include "vx_core.h"

inline constexpr size_t VXSYSFS_PATH_LEN = 256;
inline constexpr size_t VXSYSFS_ATTR_LEN = 128;

// sysfs mount point (normally "/sys"), filled once by vxsysfs_init().
extern char sysfs_mnt_path[VXSYSFS_PATH_LEN];

// ---- Discovery ----
int vxsysfs_init();
int vxsysfs_supported_driver_exist(uint32_t* start_inst);
