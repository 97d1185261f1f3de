// Shared database: the mapped file that every process of the library shares,
// and the semaphores that guard it.
#include "vx_core.h"

uint32_t api_library_instance = VX_LIBINST_SLOTS;  // none yet
uint8_t api_use_database = 1;
int api_shm_fildes = -1;
vxapi_shared_t* api_shared_data;
int api_dbupdate_sem_id = -1;
int api_thread_sem_id = -1;
int api_flash_sem_id = -1;
int api_dbg_sem_id = -1;
