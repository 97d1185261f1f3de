// Sleep shortening: the library's 20-second busy back-off and the event
// thread's one-second ticks would make every test slow. Requested durations
// are multiplied by VXSIM_SLEEP_SCALE; the long ones are journaled as asked.
#pragma once

#include <ctime>

namespace vxsim::drv {

// Requests of at least this many seconds are journaled ({"ep":"sleep"}).
inline constexpr time_t SLEEP_JOURNAL_SECONDS = 2;

// The factor for a VXSIM_SLEEP_SCALE text: a positive finite number, else 1
// (null, empty, zero, negative or malformed texts mean real time).
double parse_sleep_scale(const char* text);

// `req` multiplied by `scale`, rounded to the nearest nanosecond. A request
// that is not a valid timespec is returned unchanged so that the real call
// reports EINVAL as it would have.
timespec scale_duration(const timespec& req, double scale);

// The part of `req` still unslept when a scaled sleep was interrupted with
// `rem` left: rem / scale, never more than `req`.
timespec unscale_remaining(const timespec& rem, double scale, const timespec& req);

bool sleep_is_journaled(const timespec& req);

// The host's clock offset from the text of its state file: a decimal
// number of seconds, optionally negative, ending at a blank, newline or the
// end; anything else (or nothing) is 0.
long long parse_clock_offset(const char* text, size_t len);
double to_seconds(const timespec& t);

}  // namespace vxsim::drv
