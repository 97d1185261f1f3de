// Debug trace: one line buffer, a log file reopened per line, an optional
// echo to standard error, all gated by the mask read from VX_FCAPI_DEBUG.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

// Mask bits: which layers and kinds of message are printed.
inline constexpr uint32_t VXDBG_LOGFILE = 0x001;   // write lines to the log file
inline constexpr uint32_t VXDBG_ERROR = 0x002;
inline constexpr uint32_t VXDBG_TRACE = 0x004;     // core and leaf layers
inline constexpr uint32_t VXDBG_SDAPI = 0x020;
inline constexpr uint32_t VXDBG_HBAAPI = 0x040;
inline constexpr uint32_t VXDBG_CPQAPI = 0x080;
inline constexpr uint32_t VXDBG_EVENT = 0x100;     // event thread and shared database
inline constexpr uint32_t VXDBG_SYSFS = 0x200;
inline constexpr uint32_t VXDBG_CRITICAL = 0x400;
inline constexpr uint32_t VXDBG_DEFAULT = 0x401;

// Radix argument of vxdbg_print.
inline constexpr uint8_t VXDBG_NONE = 0;  // no number
inline constexpr uint8_t VXDBG_INT = 1;   // low 32 bits, signed decimal
inline constexpr uint8_t VXDBG_DEC = 10;
inline constexpr uint8_t VXDBG_HEX = 16;

inline constexpr const char* VXDBG_DEFAULT_LOG = "/usr/lib/libvxsdm.log";

// Read by every thread (the event thread traces too), set at each entry point.
extern std::atomic<uint32_t> vx_debug;
extern char vxdbglog_path[512];
extern FILE* vxdbg_fp;

void vxapi_set_debug_level();
void vxdbg_print(const char* string, uint64_t number, uint8_t radix, uint8_t newline);
void vxdbg_dump(const char* string, const uint8_t* buffer, uint8_t wd_size, uint64_t count);
FILE* vxdbg_get_fptr();

// True when a message with this guard is printed.
inline bool vxdbg_on(uint32_t guard) { return (vx_debug & guard) != 0; }

// The common shapes of a trace call: text only, text + number (+ line end).
inline void vxdbg_line(uint32_t guard, const char* text) {
    if (vxdbg_on(guard))
        vxdbg_print(text, 0, VXDBG_NONE, 1);
}
inline void vxdbg_text(uint32_t guard, const char* text) {
    if (vxdbg_on(guard))
        vxdbg_print(text, 0, VXDBG_NONE, 0);
}
inline void vxdbg_num(uint32_t guard, const char* text, uint64_t number, uint8_t radix, uint8_t newline) {
    if (vxdbg_on(guard))
        vxdbg_print(text, number, radix, newline);
}
// "<fn><text>[number]" on one line: the shape of a message that names the
// function it comes from when the text is shared by several functions.
inline void vxdbg_named(uint32_t guard, const char* fn, const char* text, uint64_t number = 0,
                        uint8_t radix = VXDBG_NONE) {
    if (!vxdbg_on(guard))
        return;
    vxdbg_print(fn, 0, VXDBG_NONE, 0);
    vxdbg_print(text, number, radix, 1);
}
