// vxcli metrics: every port's state, speed, discovered ports and counters in
// the Prometheus text format, for node_exporter's textfile collector. The
// file is replaced whole, so the collector never reads half of it.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <optional>

#include "commands.h"
#include "counters.h"
#include "dump.h"
#include "format.h"

namespace vxcli {

namespace {

std::string output;

void options(CLI::App& app) {
    app.add_option("-o,--output", output, "Write the metrics to FILE (replaced whole) instead of standard output")
        ->type_name("FILE");
}

struct PortMetrics {
    std::string labels;  // host="5",wwpn="...",model="..."
    std::optional<DEVICEPORTPROPERTY> prop;
    std::optional<STATISTICS> stats;
};

struct Family {
    std::string name, type, help;
    std::optional<uint64_t> (*value)(const PortMetrics&, size_t counter);
    size_t counter = 0;  // the counter's index, for counter families
};

std::optional<uint64_t> up(const PortMetrics& p, size_t) {
    if (!p.prop)
        return std::nullopt;
    return p.prop->PortState == 1 ? 1 : 0;
}
std::optional<uint64_t> speed(const PortMetrics& p, size_t) {
    if (!p.prop)
        return std::nullopt;
    return speed_gbps(p.prop->PortSpeed).value_or(0);
}
std::optional<uint64_t> discovered(const PortMetrics& p, size_t) {
    if (!p.prop)
        return std::nullopt;
    return p.prop->DiscPortCount;
}
std::optional<uint64_t> counter(const PortMetrics& p, size_t i) {
    if (!p.stats)
        return std::nullopt;
    return counters_of(*p.stats)[i].value;
}

std::vector<Family> families() {
    std::vector<Family> f = {
        {"vxsdm_port_up", "gauge", "1 when the port is online, 0 otherwise", up},
        {"vxsdm_port_speed_gbps", "gauge", "Negotiated link speed in Gbit/s (0 when unknown)", speed},
        {"vxsdm_port_discovered_ports", "gauge", "Remote ports the port has discovered", discovered},
    };
    const std::vector<Counter> names = counters_of(STATISTICS{});
    for (size_t i = 0; i < names.size(); ++i) {
        std::string stem = names[i].key;
        stem.resize(stem.size() - sizeof "_count" + 1);
        f.push_back({fmt::format("vxsdm_port_{}_total", stem), "counter", names[i].help, counter, i});
    }
    return f;
}

void run(Context& ctx) {
    std::vector<PortMetrics> ports;
    for (const SelectedPort& port : ctx.ports()) {
        PortMetrics m;
        DEVICENODEPROPERTY node{};
        const uint32_t node_status = SDGetHbaDeviceNodeProperty(port.handle, &node);
        DEVICEPORTPROPERTY prop{};
        if (const uint32_t s = SDGetHbaDevicePortProperty(port.handle, 0, &prop); s == SDM_STATUS_SUCCESS)
            m.prop = prop;
        else
            ctx.partial(fmt::format("port {}: port query", port.instance), s);
        if (node_status != SDM_STATUS_SUCCESS)
            ctx.partial(fmt::format("port {}: node query", port.instance), node_status);
        STATISTICS st{};
        if (const uint32_t s = SDGetStatistics(port.handle, 0, &st); s == SDM_STATUS_SUCCESS)
            m.stats = st;
        else
            ctx.partial(fmt::format("port {}: statistics query", port.instance), s);
        const std::string host = port.host ? std::to_string(*port.host) : "";
        const std::string wwpn = m.prop ? wwn_text(m.prop->WWN) : "";
        const std::string model = node_status == SDM_STATUS_SUCCESS ? field_text(node.Model, sizeof node.Model) : "";
        m.labels = fmt::format("host=\"{}\",wwpn=\"{}\",model=\"{}\"", metric_label(host), metric_label(wwpn),
                               metric_label(model));
        ports.push_back(std::move(m));
    }

    std::string text;
    json rows = json::array();
    for (const Family& f : families()) {
        text += fmt::format("# HELP {} {}\n# TYPE {} {}\n", f.name, f.help, f.name, f.type);
        for (const PortMetrics& p : ports)
            if (const std::optional<uint64_t> v = f.value(p, f.counter))
                text += fmt::format("{}{{{}}} {}\n", f.name, p.labels, *v);
    }
    for (size_t i = 0; i < ports.size(); ++i) {
        json row = port_identity(ctx.ports()[i]);
        for (const Family& f : families()) {
            const std::optional<uint64_t> v = f.value(ports[i], f.counter);
            row[f.name] = v ? json(*v) : json();
        }
        rows.push_back(std::move(row));
    }
    ctx.doc()["ports"] = std::move(rows);
    if (output.empty()) {
        ctx.print(text);
        return;
    }
    if (const std::string why = write_output(output, text.data(), text.size()); !why.empty())
        ctx.fail(EXIT_USAGE, "cannot write the metrics: " + why);
    else
        ctx.doc()["output"] = output;
}

}  // namespace

Command metrics_command() {
    return {"metrics", "[PORT...]", "Write every port's state and counters as Prometheus metrics",
            "Writes, for every port (or the PORTs given), whether it is up, its speed, how many remote ports it "
            "discovered and its counters, in the Prometheus text exposition format with HELP and TYPE lines and "
            "the labels host, wwpn and model. -o FILE replaces FILE whole (a new file renamed over it), as "
            "node_exporter's textfile collector needs; contrib/ has a systemd timer that does it every 30 seconds.",
            PortArg::Any, nullptr, false, options, run};
}

}  // namespace vxcli
