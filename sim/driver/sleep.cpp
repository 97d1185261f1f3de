#include "sleep.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>

namespace vxsim::drv {

namespace {

constexpr int64_t NS = 1000000000;

bool valid(const timespec& t) { return t.tv_sec >= 0 && t.tv_nsec >= 0 && t.tv_nsec < NS; }

timespec from_ns(long double ns) {
    constexpr auto max_ns = static_cast<long double>(std::numeric_limits<int64_t>::max());
    if (ns > max_ns)
        ns = max_ns;
    if (ns < 0)
        ns = 0;
    auto whole = static_cast<int64_t>(std::llround(ns));
    return timespec{static_cast<time_t>(whole / NS), static_cast<long>(whole % NS)};
}

long double to_ns(const timespec& t) {
    return static_cast<long double>(t.tv_sec) * NS + static_cast<long double>(t.tv_nsec);
}

}  // namespace

double parse_sleep_scale(const char* text) {
    if (!text || !*text)
        return 1.0;
    char* end = nullptr;
    double v = std::strtod(text, &end);
    if (end == text || *end != '\0' || !std::isfinite(v) || v <= 0)
        return 1.0;
    return v;
}

timespec scale_duration(const timespec& req, double scale) {
    if (!valid(req) || scale == 1.0)
        return req;
    return from_ns(to_ns(req) * scale);
}

timespec unscale_remaining(const timespec& rem, double scale, const timespec& req) {
    if (!valid(rem) || !valid(req) || scale == 1.0)
        return rem;
    long double ns = to_ns(rem) / scale;
    long double cap = to_ns(req);
    return from_ns(ns < cap ? ns : cap);
}

bool sleep_is_journaled(const timespec& req) { return valid(req) && req.tv_sec >= SLEEP_JOURNAL_SECONDS; }

long long parse_clock_offset(const char* text, size_t len) {
    size_t i = 0;
    bool negative = false;
    if (i < len && text[i] == '-') {
        negative = true;
        ++i;
    }
    long long v = 0;
    size_t digits = 0;
    for (; i < len && text[i] >= '0' && text[i] <= '9'; ++i, ++digits) {
        if (v > (std::numeric_limits<long long>::max() - 9) / 10)
            return 0;
        v = v * 10 + (text[i] - '0');
    }
    if (digits == 0 || (i < len && text[i] != '\n' && text[i] != ' ' && text[i] != '\0'))
        return 0;
    return negative ? -v : v;
}

double to_seconds(const timespec& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / NS;
}

}  // namespace vxsim::drv
