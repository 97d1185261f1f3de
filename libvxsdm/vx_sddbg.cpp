// Debug trace. Lines are assembled in one process-wide buffer and written
// out when a line feed arrives or the buffer is full; the log file is opened
// and closed again for every call so that a crash loses at most one line.
#include "vx_sddbg.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "vx_core.h"

std::atomic<uint32_t> vx_debug{VXDBG_DEFAULT};
char vxdbglog_path[512];
FILE* vxdbg_fp;

namespace {

// A full buffer of this many characters is written out as a line of its own.
constexpr size_t LINE_SPLIT = 251;

char line_buf[256];
size_t line_fill;

// Keeps the shared line buffer whole when several threads trace at once;
// the debug semaphore (when tracing was switched on) orders whole lines
// among processes as well. A plain pthread mutex: nothing here may throw
// into a C caller.
pthread_mutex_t trace_mutex = PTHREAD_MUTEX_INITIALIZER;

// The buffer was just written out full, with a line feed of our own: the
// message's own line feed, if it comes next, ends that same line.
bool just_split;

// A failing semaphore operation inside the trace would trace again.
thread_local bool in_trace;

void flush_line() {
    line_buf[line_fill] = '\0';
    // Written as text, never as a format: a '%' in a message stays a '%'.
    if (vx_debug != VXDBG_DEFAULT)
        fputs(line_buf, stderr);
    if (vx_debug & VXDBG_LOGFILE) {
        if (FILE* fp = vxdbg_get_fptr())
            fputs(line_buf, fp);
    }
    line_fill = 0;
}

void vxdbg_putc(char c) {
    if (c == '\n' && just_split && line_fill == 0) {
        just_split = false;
        return;
    }
    just_split = false;
    line_buf[line_fill++] = c;
    if (c == '\n') {
        flush_line();
    } else if (line_fill == LINE_SPLIT) {
        // A message longer than the buffer is split into several lines.
        line_buf[line_fill++] = '\n';
        flush_line();
        just_split = true;
    }
}

void vxdbg_puts(const char* s) {
    for (; *s; ++s)
        vxdbg_putc(*s);
}

void vxdbg_output_number(uint64_t n, uint8_t radix) {
    if (n == UINT64_MAX)
        return;
    if (radix == VXDBG_INT) {
        char text[16];
        snprintf(text, sizeof text, "%d", static_cast<int32_t>(static_cast<uint32_t>(n)));
        vxdbg_puts(text);
        return;
    }
    if (radix != VXDBG_DEC && radix != VXDBG_HEX)
        return;
    char digits[24];
    size_t len = 0;
    uint64_t rest = n;
    do {
        const unsigned d = static_cast<unsigned>(rest % radix);
        digits[len++] = static_cast<char>(d < 10 ? '0' + d : 'A' + (d - 10));
        rest /= radix;
    } while (rest != 0);
    while (len > 0)
        vxdbg_putc(digits[--len]);
    if (radix == VXDBG_HEX && n > 9)
        vxdbg_putc('h');
}

void close_log() {
    if (vxdbg_fp) {
        fclose(vxdbg_fp);
        vxdbg_fp = nullptr;
    }
}

void write_stamp() {
    FILE* fp = vxdbg_get_fptr();
    if (!fp)
        return;
    time_t now = time(nullptr);
    struct tm local {};
    char stamp[64];
    if (localtime_r(&now, &local) && strftime(stamp, sizeof stamp, "%b %d %T", &local) > 0) {
        fputs(stamp, fp);
        fputs(": ", fp);
    }
}

// Holds the process lock and the debug semaphore for one trace call, and
// keeps errno as the caller left it: callers trace a failure before they
// hand its errno on.
class trace_scope {
public:
    trace_scope() : saved_errno_(errno) {
        pthread_mutex_lock(&trace_mutex);
        in_trace = true;
        // By key, as the other locks: a set removed and made again under
        // 819 is looked up anew rather than waited on by a stale id.
        if (api_dbg_sem_id != -1)
            sem_held_ = vxapi_sem_lock(api_dbg_sem_id, VX_SEM_KEY_DEBUG) == 0;
    }
    ~trace_scope() {
        close_log();
        if (sem_held_)
            vxapi_sem_unlock(api_dbg_sem_id);
        in_trace = false;
        pthread_mutex_unlock(&trace_mutex);
        errno = saved_errno_;
    }
    trace_scope(const trace_scope&) = delete;
    trace_scope& operator=(const trace_scope&) = delete;

private:
    int saved_errno_;
    bool sem_held_ = false;
};

struct dump_layout {
    uint8_t wd_size;
    unsigned per_row;
    const char* header[2];
    unsigned rule[2];  // dashes in each piece; 0 = no second piece
    // Blanks before a value, by the number of hex digits it needs (index 1..8);
    // values of more digits get none.
    unsigned pad_by_digits[9];
};

constexpr dump_layout dump_layouts[] = {
    {8, 16,
     {" 0    1    2    3    4    5    6    7", "    8    9    Ah   Bh   Ch   Dh   Eh   Fh"},
     {39, 39},
     {0, 1, 0, 0, 0, 0, 0, 0, 0}},
    {16, 8, {"   0      2      4      6      8", "      Ah     Ch     Eh"}, {28, 26}, {0, 3, 2, 1, 0, 0, 0, 0, 0}},
    {32, 4, {"       0          4", "          8          Ch"}, {22, 20}, {0, 7, 6, 5, 4, 3, 2, 1, 0}},
    {64, 2, {"               0", "                  4"}, {35, 0}, {0, 15, 14, 13, 12, 11, 10, 9, 0}},
};

unsigned hex_digits(uint64_t value) {
    unsigned n = 1;
    while (value >>= 4)
        ++n;
    return n;
}

void dump_rule(const dump_layout& layout) {
    for (unsigned piece = 0; piece < 2; ++piece)
        for (unsigned i = 0; i < layout.rule[piece]; ++i)
            vxdbg_putc('-');
    vxdbg_putc('\n');
}

uint64_t read_unit(const uint8_t* buffer, uint8_t wd_size, uint64_t index) {
    switch (wd_size) {
    case 8:
        return buffer[index];
    case 16: {
        uint16_t v;
        memcpy(&v, buffer + index * 2, sizeof v);
        return v;
    }
    case 32: {
        uint32_t v;
        memcpy(&v, buffer + index * 4, sizeof v);
        return v;
    }
    default: {
        uint64_t v;
        memcpy(&v, buffer + index * 8, sizeof v);
        return v;
    }
    }
}

}  // namespace

void vxapi_set_debug_level() {
    // Composed locally and stored once, so other threads never see a half-set mask.
    uint32_t mask = VXDBG_DEFAULT;
    const char* env = getenv("VX_FCAPI_DEBUG");
    const long value = env ? strtol(env, nullptr, 16) : 0;
    mask |= static_cast<uint32_t>(value);
    vx_debug = mask;
    // Known before the first line, so that the signal path (which cannot
    // read the environment safely) writes to the same file.
    if (secure_getenv(VXDBG_LOG_ENV))
        vxdbg_set_log_path();
    if (value != 0 && api_dbg_sem_id == -1)
        api_dbg_sem_id = vxapi_sem_get(VX_SEM_KEY_DEBUG);
}

void vxdbg_set_log_path() {
    if (vxdbglog_path[0] != '\0')
        return;
    // secure_getenv: a set-user-id program that loads the library must not
    // let its caller name a file for root to append to.
    const char* env = secure_getenv(VXDBG_LOG_ENV);
    const bool usable = env && *env && strlen(env) < sizeof vxdbglog_path;
    snprintf(vxdbglog_path, sizeof vxdbglog_path, "%s", usable ? env : VXDBG_DEFAULT_LOG);
}

FILE* vxdbg_get_fptr() {
    if (vxdbg_fp)
        return vxdbg_fp;
    if (vx_debug != 0)
        vxdbg_set_log_path();
    if (vxdbglog_path[0] == '\0')
        return nullptr;
    // Not through a link: the path may name a directory others can write to.
    const int fd = open(vxdbglog_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0)
        return nullptr;
    vxdbg_fp = fdopen(fd, "a");
    if (!vxdbg_fp)
        close(fd);
    return vxdbg_fp;
}

void vxdbg_print(const char* string, uint64_t number, uint8_t radix, uint8_t newline) {
    if (vx_debug == 0 || in_trace)
        return;
    trace_scope scope;
    if ((vx_debug & VXDBG_LOGFILE) && newline == 1)
        write_stamp();  // earlier pieces of the line wait in the buffer, so the stamp leads
    if (string)
        vxdbg_puts(string);
    if (radix != VXDBG_NONE)
        vxdbg_output_number(number, radix);
    if (newline == 1)
        vxdbg_putc('\n');
}

void vxdbg_dump(const char* string, const uint8_t* buffer, uint8_t wd_size, uint64_t count) {
    if (vx_debug == 0 || in_trace)
        return;
    trace_scope scope;
    if (string && string[0] != '\0') {
        vxdbg_puts(string);
        vxdbg_putc('\n');
    }
    const dump_layout* layout = nullptr;
    for (const dump_layout& l : dump_layouts)
        if (l.wd_size == wd_size)
            layout = &l;
    if (!layout)
        return;
    vxdbg_puts(layout->header[0]);
    vxdbg_puts(layout->header[1]);
    vxdbg_putc('\n');
    dump_rule(*layout);
    for (uint64_t i = 0; buffer && i < count; ++i) {
        const uint64_t value = read_unit(buffer, wd_size, i);
        const unsigned digits = hex_digits(value);
        const unsigned pad = digits < 9 ? layout->pad_by_digits[digits] : 0;
        for (unsigned b = 0; b < pad; ++b)
            vxdbg_putc(' ');
        vxdbg_output_number(value, VXDBG_HEX);
        if ((i + 1) % layout->per_row == 0)
            vxdbg_putc('\n');
        else
            vxdbg_puts(value <= 9 ? "   " : "  ");
    }
    if (buffer && count % layout->per_row != 0)
        vxdbg_putc('\n');
    dump_rule(*layout);
}
