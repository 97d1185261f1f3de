// Instance registry: one record per discovered port, one per adapter PCI
// function, handles, look-ups, and opening and closing a port.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "vx_channel.h"
#include "vx_core.h"
#include "vx_sddbg.h"

Dlist* api_priv_database;
Dlist* api_phy_info;
vxapi_priv_db_t api_priv_data[VX_MAX_LEGACY_INSTANCES];
vxapi_priv_database* current_priv_inst;
vxapi_phy_info* current_phy_info_inst;

namespace {

// dlist_insert after the last node appends (the list's own "end" marker
// would insert at the front).
void* dlist_append(Dlist* list, void* data) {
    list->marker = list->head->prev;
    return dlist_insert(list, data, 1);
}

// Removes the node holding `data` and frees `data` with the list's delete
// function. Returns false when the list does not hold it.
bool dlist_remove_data(Dlist* list, const void* data) {
    if (!list)
        return false;
    for (DL_node* node = list->head->next; node != list->head; node = node->next) {
        if (node->data == data) {
            list->marker = node;
            dlist_delete(list, 1);
            return true;
        }
    }
    return false;
}

bool same_text(const uint8_t* a, const uint8_t* b, size_t size) {
    return strncmp(reinterpret_cast<const char*>(a), reinterpret_cast<const char*>(b), size) == 0;
}

void free_priv_record_contents(vxapi_priv_database* record) {
    free(record->api_event_cbs);
    record->api_event_cbs = nullptr;
}

}  // namespace

// ---- Handles ----

uint32_t vxapi_create_apihandle(uint32_t instance) { return instance + 1; }

vxapi_priv_database* check_handle(uint32_t handle) {
    if (handle == 0 || !api_priv_database)
        return nullptr;
    vxapi_priv_database* found = nullptr;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* record) {
        if (record->apihandle != handle)
            return true;
        found = record;
        return false;
    });
    if (found && !(found->features & (VX_FEAT_IOCTL_NODE | VX_FEAT_SYSFS)))
        return nullptr;
    return found;
}

int vxapi_get_api_inst_by_handle(uint32_t handle, int* index) {
    if (!index)
        return 1;
    *index = -1;
    for (int i = 0; i < VX_MAX_LEGACY_INSTANCES; ++i) {
        if (api_priv_data[i].apihandle == handle) {
            *index = i;
            return 0;
        }
    }
    return 1;
}

// ---- Look-ups ----

vxapi_priv_database* vxapi_get_api_priv_inst_from_user_instance(uint32_t instance) {
    vxapi_priv_database* found = nullptr;
    uint32_t position = 0;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* record) {
        if (position++ != instance)
            return true;
        found = record;
        return false;
    });
    return found;
}

int vxapi_get_instance_from_api_priv_inst(const vxapi_priv_database* record, uint32_t* instance) {
    if (!api_priv_database || !record || !instance)
        return 1;
    int result = 1;
    uint32_t position = 0;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* r) {
        if (r != record) {
            ++position;
            return true;
        }
        *instance = position;
        result = 0;
        return false;
    });
    return result;
}

void vxapi_adapter_name(const vxapi_priv_database* record, uint32_t position, char* out, size_t len) {
    if (!out || len == 0)
        return;
    const char* model = record && record->phy_info ? reinterpret_cast<const char*>(record->phy_info->model) : "";
    // The model field need not be terminated.
    snprintf(out, len, "varnex-%.16s-%d", model, static_cast<int>(position));
}

vxapi_priv_database* vxapi_get_api_priv_inst_from_adaptername(const char* name) {
    if (!name)
        return nullptr;
    vxapi_priv_database* found = nullptr;
    uint32_t position = 0;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* record) {
        char text[64];
        vxapi_adapter_name(record, position++, text, sizeof text);
        if (strcmp(text, name) != 0)
            return true;
        found = record;
        return false;
    });
    return found;
}

int vxapi_get_host_no_by_handle(uint32_t handle, uint32_t* host_no) {
    if (!host_no)
        return 1;
    *host_no = 0xFFFF;
    if (handle == 0 || !api_priv_database)
        return 1;
    int result = 1;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* record) {
        if (record->apihandle != handle)
            return true;
        *host_no = record->host_no;
        result = 0;
        return false;
    });
    return result;
}

uint32_t vxapi_get_open_adapter_count() {
    if (!api_priv_database) {
        vxdbg_line(VXDBG_ERROR | VXDBG_TRACE, "vxapi_get_open_adapter_count: no memory allocated for api_priv_data");
        return 0;
    }
    uint32_t count = 0;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* record) {
        if (record->apihandle != 0)
            ++count;
        return true;
    });
    return count;
}

int vxapi_is_host_no_present(uint32_t host_no) {
    if (!api_priv_database) {
        vxdbg_line(VXDBG_ERROR | VXDBG_TRACE, "vxapi_is_host_no_present: no memory allocated for api_priv_data");
        return 1;
    }
    int result = 1;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* record) {
        if (record->host_no != host_no)
            return true;
        result = 0;
        return false;
    });
    return result;
}

vxapi_priv_database* vxapi_get_phy_port_from_vport(const vxapi_priv_database* vport) {
    if (!vport || !vport->phy_info) {
        vxdbg_line(VXDBG_ERROR | VXDBG_TRACE, "vxapi_get_phy_port_from_vport: invalid vport");
        return nullptr;
    }
    vxapi_priv_database* found = nullptr;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* record) {
        if (record->interface_type != VX_IFTYPE_PHYSICAL || record->phy_info != vport->phy_info)
            return true;
        found = record;
        return false;
    });
    return found;
}

vxapi_priv_database* vxapi_get_vport_from_wwn(const vxapi_priv_database* parent, const uint8_t* wwnn,
                                              const uint8_t* wwpn) {
    if (!wwnn || !wwpn)
        return nullptr;
    vxapi_priv_database* found = nullptr;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* record) {
        if (record->interface_type != VX_IFTYPE_VIRTUAL || record->parent != parent ||
            memcmp(record->wwnn, wwnn, 8) != 0 || memcmp(record->wwpn, wwpn, 8) != 0)
            return true;
        found = record;
        return false;
    });
    return found;
}

vxapi_priv_database* vxapi_get_vport_from_vport_id(const vxapi_priv_database* parent, uint32_t vp_idx) {
    vxapi_priv_database* found = nullptr;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* record) {
        if (record->interface_type != VX_IFTYPE_VIRTUAL || record->parent != parent || record->vp_idx != vp_idx)
            return true;
        found = record;
        return false;
    });
    return found;
}

vxapi_phy_info* vxapi_get_api_phy_info_inst(const vxapi_phy_info* pci) {
    if (!api_phy_info) {
        vxdbg_line(VXDBG_ERROR | VXDBG_TRACE, "vxapi_get_api_phy_info_inst: api_phy_info is NOT initialized");
        return nullptr;
    }
    if (!pci)
        return nullptr;
    vxapi_phy_info* found = nullptr;
    vx_dlist_each<vxapi_phy_info>(api_phy_info, [&](vxapi_phy_info* info) {
        if (info->pci_domain != pci->pci_domain || info->pci_bus != pci->pci_bus ||
            info->pci_dev_func != pci->pci_dev_func)
            return true;
        found = info;
        return false;
    });
    return found;
}

// ---- Bookkeeping ----

void vxapi_fill_phy_port_number(vxapi_priv_database* record) {
    if (!record || !record->phy_info)
        return;
    uint8_t number = 1;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [&](vxapi_priv_database* r) {
        if (r == record)
            return false;
        if (r->interface_type == VX_IFTYPE_PHYSICAL && r->phy_info &&
            same_text(r->phy_info->serial_num, record->phy_info->serial_num, sizeof r->phy_info->serial_num))
            ++number;
        return true;
    });
    record->phy_info->port_number = number;
}

uint32_t vxapi_get_total_libinst_count() {
    if (!api_shared_data)
        return 0;
    uint32_t count = 0;
    for (uint32_t slot = 0; slot < VX_LIBINST_SLOTS; ++slot)
        if (api_shared_data->libinst_flags[slot] & (VX_LIBINST_HELD | VX_LIBINST_CLAIMED | VX_LIBINST_RESERVED))
            ++count;
    return count;
}

uint32_t vxapi_get_number_of_bits_set(uint32_t value) { return static_cast<uint32_t>(__builtin_popcount(value)); }

// ---- Making and freeing records ----

int vxapi_alloc_api_priv_data_mem(uint32_t* err) {
    if (err)
        *err = 0;
    bool created = false;
    if (!api_priv_database) {
        api_priv_database = dlist_new(sizeof(vxapi_priv_database));
        if (!api_priv_database) {
            vxdbg_line(VXDBG_ERROR | VXDBG_TRACE, "vxapi_alloc_api_priv_data_mem: not enough memory for api_priv_data");
            if (err)
                *err = ENOMEM;
            return 1;
        }
        created = true;
    }
    auto fail = [&](const char* message, vxapi_priv_database* record) {
        vxdbg_line(VXDBG_ERROR | VXDBG_TRACE, message);
        if (record) {
            free_priv_record_contents(record);
            free(record);
        }
        if (created) {
            dlist_destroy(api_priv_database);
            api_priv_database = nullptr;
        }
        if (err)
            *err = ENOMEM;
        return 1;
    };
    auto* record = static_cast<vxapi_priv_database*>(calloc(1, sizeof(vxapi_priv_database)));
    if (!record)
        return fail("vxapi_alloc_api_priv_data_mem: not enough memory for api_priv_data instance", nullptr);
    record->oshandle = -1;
    vxapi_set_channel(record);
    record->api_event_cbs = static_cast<vxapi_aen_callback_table*>(calloc(1, sizeof(vxapi_aen_callback_table)));
    if (!record->api_event_cbs)
        return fail("vxapi_alloc_api_priv_data_mem: not enough memory for api_event_cbs", record);
    if (!dlist_append(api_priv_database, record))
        return fail("vxapi_alloc_api_priv_data_mem: dlist_insert failed", record);
    current_priv_inst = record;
    return 0;
}

int vxapi_alloc_api_phy_info_mem(uint32_t* err) {
    if (err)
        *err = 0;
    bool created = false;
    if (!api_phy_info) {
        api_phy_info = dlist_new(sizeof(vxapi_phy_info));
        if (!api_phy_info) {
            vxdbg_line(VXDBG_ERROR | VXDBG_TRACE, "vxapi_alloc_api_phy_info_mem: not enough memory for api_phy_info");
            if (err)
                *err = ENOMEM;
            return 1;
        }
        created = true;
    }
    auto fail = [&](const char* message, vxapi_phy_info* info) {
        vxdbg_line(VXDBG_ERROR | VXDBG_TRACE, message);
        free(info);
        if (created) {
            dlist_destroy(api_phy_info);
            api_phy_info = nullptr;
        }
        if (err)
            *err = ENOMEM;
        return 1;
    };
    auto* info = static_cast<vxapi_phy_info*>(calloc(1, sizeof(vxapi_phy_info)));
    if (!info)
        return fail("vxapi_alloc_api_phy_info_mem: not enough memory for api_phy_info instance", nullptr);
    if (!dlist_append(api_phy_info, info))
        return fail("vxapi_alloc_api_phy_info_mem: dlist_insert failed", info);
    current_phy_info_inst = info;
    return 0;
}

void vxapi_free_api_priv_data_element(vxapi_priv_database* record) {
    if (!record)
        return;
    free_priv_record_contents(record);
    if (current_priv_inst == record)
        current_priv_inst = nullptr;
    dlist_remove_data(api_priv_database, record);
}

void vxapi_free_api_phy_info_element(vxapi_phy_info* info) {
    if (!info)
        return;
    free(info->pflt_layout);
    info->pflt_layout = nullptr;
    if (current_phy_info_inst == info)
        current_phy_info_inst = nullptr;
    dlist_remove_data(api_phy_info, info);
}

void vxapi_free_api_priv_data_mem() {
    if (!api_priv_database)
        return;
    vx_dlist_each<vxapi_priv_database>(api_priv_database, [](vxapi_priv_database* record) {
        free_priv_record_contents(record);
        return true;
    });
    dlist_destroy(api_priv_database);
    api_priv_database = nullptr;
    current_priv_inst = nullptr;
}

void vxapi_free_api_phy_info_mem() {
    if (!api_phy_info)
        return;
    vx_dlist_each<vxapi_phy_info>(api_phy_info, [](vxapi_phy_info* info) {
        free(info->pflt_layout);
        info->pflt_layout = nullptr;
        return true;
    });
    dlist_destroy(api_phy_info);
    api_phy_info = nullptr;
    current_phy_info_inst = nullptr;
}

// ---- Open and close ----

int vxapi_open_adapter(vxapi_priv_database* record, uint32_t* handle, uint32_t* status) {
    if (!api_use_database)
        return 2;
    uint32_t instance = 0;
    if (vxapi_get_instance_from_api_priv_inst(record, &instance) != 0)
        return 1;
    if (record->features & VX_FEAT_SYSFS) {
        record->apihandle = vxapi_create_apihandle(instance);
    } else if (record->open_cnt == 0) {
        char path[sizeof record->phys_path + 1];
        snprintf(path, sizeof path, "%.*s", static_cast<int>(sizeof record->phys_path),
                 reinterpret_cast<const char*>(record->phys_path));
        const int fd = open(path, O_RDWR | O_CLOEXEC);
        if (fd < 0) {
            const int saved = errno;
            if (status)
                *status = static_cast<uint32_t>(saved);
            if (vxdbg_on(VXDBG_ERROR | VXDBG_TRACE)) {
                vxdbg_print("vxapi_open_adapter(", instance, VXDBG_DEC, 0);
                vxdbg_print("): error opening adapter=", static_cast<uint64_t>(saved), VXDBG_DEC, 1);
            }
            errno = saved;
            return 1;
        }
        record->oshandle = fd;
        record->apihandle = vxapi_create_apihandle(instance);
    }
    ++record->open_cnt;
    if (handle)
        *handle = record->apihandle;
    return 0;
}

int vxapi_close_adapter(vxapi_priv_database* record, uint32_t* status) {
    if (!record) {
        vxdbg_line(VXDBG_ERROR | VXDBG_TRACE, "vxapi_close_adpter: api_priv_data_instnot found, exiting");
        return 1;
    }
    if (record->open_cnt == 0)
        return 0;
    if (record->open_cnt > 1) {
        --record->open_cnt;
        return 0;
    }
    if (!(record->features & VX_FEAT_SYSFS) && record->oshandle >= 0) {
        if (close(record->oshandle) != 0) {
            if (status)
                *status = static_cast<uint32_t>(errno);
            return 1;
        }
    }
    record->oshandle = -1;
    record->apihandle = 0;
    record->open_cnt = 0;
    return 0;
}
