// A port's counters as stats and metrics show them: one key per counter,
// in the order of the library's record.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vsdmgt.h"

namespace vxcli {

struct Counter {
    const char* key;   // JSON key and metric name stem
    const char* help;  // one line, for the metrics' HELP
    uint32_t value = 0;
};

// The counters of a STATISTICS record (InterruptCount and Reserved are
// never filled in, so they are left out).
std::vector<Counter> counters_of(const STATISTICS& st);

}  // namespace vxcli

namespace vxcli {

// A label value of the Prometheus text format: backslash, double quote and
// newline escaped.
std::string metric_label(const std::string& value);

}  // namespace vxcli
