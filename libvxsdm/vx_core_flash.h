// Flash: option ROM layouts (fixed tables and the flash layout table), the
// process-wide current layout, PCI expansion-ROM images, sector alignment,
// the pure steps of an option ROM update, and the VPD kept inside images.
// Internal: nothing here is exported.
#pragma once

#include <cstdint>

#include "inioct.h"
#include "vx_core.h"

// ---- The process-wide current layout ----
// Deliberately unlocked: it is the layout of the adapter most recently asked
// about, and callers that publish and then read it serialise themselves.
extern INT_OPT_ROM_LAYOUT gOptRomLayout;
extern INT_OPT_ROM_LAYOUT* pGlobalOptRomLayout;  // null until the first publication
// Points the current layout at gOptRomLayout, zeroes it and copies `len`
// bytes of `layout` in (at most a whole layout).
void vxapi_publish_optrom_layout(const void* layout, uint32_t len);

// ---- Fixed region tables of the families without a flash layout table ----
// Each ends with a row whose Size is 0.
extern const OPT_ROM_TABLE LayoutFinch[3];
extern const OPT_ROM_TABLE LayoutHp[3];
extern const OPT_ROM_TABLE LayoutRobin[3];
extern const OPT_ROM_TABLE LayoutHeron[3];
extern const OPT_ROM_TABLE LayoutEgret[3];
extern const OPT_ROM_TABLE LayoutSwift[8];
extern const OPT_ROM_TABLE LayoutKite[19];

// The fixed table of an adapter and the layout buffer bytes it needs.
const OPT_ROM_TABLE* vxapi_fixed_layout(uint16_t device_id, uint16_t ssvendor_id, uint16_t ssdevice_id,
                                        uint32_t* needed);

// Flash addresses per family (0: the family has none): the layout table's
// default place, the bound of the boot-image scan for its locator, and the
// flash-part description.
uint32_t vxapi_flt_default_address(uint16_t device_id);
uint32_t vxapi_flt_scan_bound(uint16_t device_id);
uint32_t vxapi_fdt_address(uint16_t device_id);
// Bytes of flash on the board (the adapter table); 0 for an unknown id.
uint32_t vxapi_flash_size(uint16_t device_id);

// ---- Parsers of flash bytes (never look outside buf[0, len)) ----
// Layout table at buf: on success NoOfRegions and Region[] of `layout` are
// written (Size is left alone) and the result is 0. 1: wrong version, 2:
// entries run past `len`, 3: checksum.
int vxapi_parse_flt(const uint8_t* buf, uint32_t len, INT_OPT_ROM_LAYOUT* layout);
// Locator at buf: 0 and the table's address when signature and checksum hold.
int vxapi_parse_flt_locator(const uint8_t* buf, uint32_t len, uint32_t* address);
// Flash-part description at buf: 0 and its block size; 1 not present ("VXID"
// missing), 2 checksum failed.
int vxapi_parse_fdt(const uint8_t* buf, uint32_t len, uint32_t* block_size);

// ---- Layout operations ----
// Each reads flash through vxapi_flash_read_at on the port's own descriptor
// (discovery calls them with API handle 0).
int vxapi_get_flt_data(uint32_t handle, vxapi_priv_database* inst, uint32_t flt_address);
int vxapi_get_flt_address(uint32_t handle, vxapi_priv_database* inst, uint32_t* address);
// The adapter's layout into `buffer` (a 4088-byte layout buffer): the
// fixed table, or the driver's answer on ioctl ports of the other families.
int vxapi_get_optrom_layout(uint32_t handle, vxapi_priv_database* inst, uint8_t* buffer, uint32_t buffer_size,
                            uint32_t* pext_status);
// 1 when a region of the current layout has exactly this region word.
int vxapi_check_region(uint32_t region);
// Replaces the current layout with the adapter's fixed table; the extended status.
uint32_t vxapi_override_flt(uint32_t handle, vxapi_priv_database* inst);

// ---- Sector alignment ----
// The sector-aligned span around [offset, offset + size): 0 and start/len,
// or 1 when the sector size is not a power of two or the span passes 4 GiB.
int vxapi_sector_span(uint32_t offset, uint32_t size, uint32_t sector, uint32_t* start, uint32_t* len);
// Widens a partial write to whole sectors: when needed, *db receives a new
// buffer (malloc; the caller frees it) holding the surrounding flash bytes
// with the caller's `*size` bytes at their place, and *offset/*size describe
// it. 0 on success.
uint32_t vxapi_sector_align(int handle, vxapi_priv_database* inst, uint8_t** db, const uint8_t* poptrom,
                            uint32_t* offset, uint32_t* size);

// ---- Region reset ----
// Reset codes sent with the activate request, and what a region asks for.
inline constexpr uint32_t VX_RESET_SPECIAL_FULL = 0x2025C;      // restart every processor
inline constexpr uint32_t VX_RESET_SPECIAL_VERSIONS = 0x20261;  // driver re-reads image versions
inline constexpr uint32_t VX_RESET_SPECIAL_IMAGE_SET = 0x20262; // driver re-reads the active image set

enum class vxapi_reset_action {
    send,     // activate `code`
    nothing,  // the family has no region reset: success, nothing sent
    invalid,  // the region cannot be reset on this family
};
vxapi_reset_action vxapi_reset_code(uint16_t device_id, uint32_t region, uint16_t* code);

// ---- PCI expansion-ROM images ----
struct vxapi_rom_image {
    uint32_t offset;         // image start in the buffer
    uint32_t pcir;           // PCI data structure, from the buffer start
    uint32_t length;         // ImageLength * 512
    uint32_t header_length;  // header byte 2 * 512: the span of the checksum
    uint16_t vendor_id;
    uint16_t device_id;
    uint16_t code_revision;
    uint8_t code_type;
    bool last;
};

enum class vxapi_rom_status {
    ok,
    no_signature,  // no 0x55 0xAA
    no_pcir,       // PCI data structure pointer outside the buffer or no "PCIR"
    zero_length,
    past_end,      // the image runs past the buffer
    no_last,       // the chain ends (or hits its image limit) without a last image
};

// The image heading at `pos`.
vxapi_rom_status vxapi_rom_image_at(const uint8_t* buf, uint32_t len, uint32_t pos, vxapi_rom_image* img);
// Position after an image directory ("QFIM") standing at `pos`, else `pos`.
uint32_t vxapi_rom_skip_directory(const uint8_t* buf, uint32_t len, uint32_t pos);

// Walks a chain of images: next() hands out one image at a time and stops
// after the last image, at a bad or zero-length image, after `max_images`,
// or once an image would start at or past `limit`.
class vxapi_rom_walk {
public:
    vxapi_rom_walk(const uint8_t* buf, uint32_t len, uint32_t start, uint32_t max_images, uint32_t limit);
    bool next(vxapi_rom_image* img);
    vxapi_rom_status status() const { return status_; }  // why the walk stopped
    uint32_t position() const { return pos_; }           // just past the last image handed out
    bool found_last() const { return last_; }

private:
    const uint8_t* buf_;
    uint32_t len_;
    uint32_t pos_;
    uint32_t left_;
    uint32_t limit_;
    vxapi_rom_status status_ = vxapi_rom_status::ok;
    bool last_ = false;
    bool done_ = false;
};

inline constexpr uint32_t VX_ROM_MAX_IMAGES = 16;

// The first image of `code_type` in a flash image (an image directory at its
// start is skipped). 0 when found.
int vxapi_find_rom_image(const uint8_t* buf, uint32_t len, uint8_t code_type, vxapi_rom_image* img);
// Structure of a boot-code image before it is written: images from the
// start, each 0x55 0xAA with its PCI data structure, non-zero length, inside
// the buffer, ending with a last-image flag. `count` receives the images seen.
vxapi_rom_status vxapi_check_rom_images(const uint8_t* buf, uint32_t len, uint32_t* count);
const char* vxapi_rom_status_text(vxapi_rom_status status);

// ---- Option ROM update: the checks and the preservation steps ----
// Why an image is refused before anything is written (0 = accepted).
enum class vxapi_update_refusal {
    none,
    unknown_region,
    read_only,
    too_large,       // larger than the region
    bad_structure,   // a boot-code region whose images are broken
};
// Regions whose content is a chain of PCI expansion-ROM images.
bool vxapi_region_holds_boot_code(uint32_t code);
// `region` is the region word found in the current layout (null: unknown).
vxapi_update_refusal vxapi_check_update(const INT_OPT_ROM_REGION* region, const uint8_t* image, uint32_t size,
                                        vxapi_rom_status* structure);

inline constexpr uint32_t VX_SETTINGS_SEARCH_END = 0x1FFF9;  // last position "MEISP " is looked for at
inline constexpr uint32_t VX_SETTINGS_LEN = 256;
inline constexpr uint32_t VX_SETTINGS_LEN_SWIFT = 512;
inline constexpr uint32_t VX_PRESERVE_MAX_IMAGES = 10;

// Position of the settings block ("MEISP " + 2) searched from `from`; -1 when absent.
int64_t vxapi_find_settings_block(const uint8_t* buf, uint32_t len, uint32_t from, uint32_t block_len);
// The image checksum: the 8-bit sum of bytes 0 .. len-3 (the byte at len-2
// is left out) negated into len-1, len being header byte 2 * 512. 1 when
// that span does not lie inside the buffer.
int vxapi_rom_checksum(uint8_t* buf, uint32_t len, uint32_t image);
// Carries the adapter's settings block and subsystem vendor bytes from the
// current flash content into each x86 image of `image`, recomputing the
// checksum of every image changed. Returns the number of images changed.
uint32_t vxapi_preserve_settings(const uint8_t* current, uint32_t current_len, uint8_t* image, uint32_t image_len,
                                 uint32_t settings_len);

inline constexpr uint32_t VX_KITE_BOOT_LEN = 0x40000;
inline constexpr uint32_t VX_KITE_WRITE_LEN = 0x80000;
// The Kite boot code stands twice. Returns the buffer to write: `image`
// itself when it holds VX_KITE_WRITE_LEN bytes, else a new zeroed buffer
// (malloc, in *made) of that size; *write_len its length. Null when memory is short.
uint8_t* vxapi_kite_double_boot(uint8_t* image, uint32_t size, uint8_t** made, uint32_t* write_len);

// ---- VPD inside flash images ----
inline constexpr uint32_t VX_OLD_VPD_OFFSET = 0x1FE00;  // last 512 bytes of the 128 KiB boot image
// The VPD held by an older family's boot image (first byte 0x82), or null.
const uint8_t* vxapi_find_vpd_image(const uint8_t* image, uint32_t len);
// Puts `vpd` (512 bytes) into the same place of a new image and refreshes
// its version keywords from the new image's boot code. 0 on success.
int vxapi_add_vpd_image(uint8_t* buffer, uint32_t len, const uint8_t* vpd);
// The version keywords of the VPD at the old image place, from that image.
int vxapi_update_vpd_version_field(uint8_t* buffer, uint32_t len, uint8_t* vpd);
// Refreshes "V1", "V3", "V4", "V5" of `vpdbuf` from the new flash image
// `buffer` (written to `region`) and recomputes "RV". 0 on success.
int vxapi_update_nv_vpd_version(const uint8_t* buffer, uint32_t buffer_sz, uint8_t* vpdbuf, uint32_t vpdsize,
                                uint32_t region);
// "V4" text of a CodeRevision: " 3.18" below major 100, "100.05" above.
void vxapi_format_code_revision(uint16_t revision, char* out, uint32_t out_len);
