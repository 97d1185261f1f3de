// vxcli events: the ports' asynchronous events. The library's event thread
// collects them every 15 seconds, so a run without --follow waits one such
// period; --follow goes on until it is stopped.
#include <fmt/chrono.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <thread>

#include "commands.h"

namespace vxcli {

namespace {

bool follow = false;

// The event thread's period and a second to spare.
constexpr int WAIT_SECONDS = 16;

void options(CLI::App& app) {
    app.add_flag("-f,--follow", follow, "Print events as they arrive until stopped (JSON: one object per line)");
}

const std::vector<TableColumn>& columns() {
    static const std::vector<TableColumn> table = {
        {"TIME", "time"}, {"INSTANCE", "instance", true}, {"HOST", "host", true}, {"EVENT", "event"},
        {"CODE", "code", true}};
    return table;
}

const char* event_name(uint32_t code) {
    switch (code) {
    case SDM_AEN_LIP: return "LIP";
    case SDM_AEN_LINK_UP: return "link up";
    case SDM_AEN_LINK_DOWN: return "link down";
    case SDM_AEN_LIP_RESET: return "LIP reset";
    case SDM_AEN_RSCN: return "RSCN";
    case SDM_AEN_PORT_DB_CHANGE: return "port database change";
    case SDM_AEN_STATE_CHANGE: return "state change";
    case SDM_AEN_FABRIC_CHANGE: return "fabric change";
    default: return "unknown";
    }
}

std::string now_text() {
    return fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(std::chrono::system_clock::now())));
}

// The events queued for each port since the last call, as rows.
std::vector<json> take_events(Context& ctx) {
    std::vector<json> rows;
    for (const SelectedPort& port : ctx.ports()) {
        ASYNCEVENT events[64];
        SD_UINT32 count = 0;
        const uint32_t status = SDGetAen(port.handle, events, sizeof events, &count);
        if (status != SDM_STATUS_SUCCESS) {
            ctx.partial(fmt::format("port {}: event query", port.instance), status);
            continue;
        }
        for (SD_UINT32 i = 0; i < count && i < std::size(events); ++i) {
            json row = json{{"time", now_text()}};
            row.update(port_identity(port));
            row["event"] = event_name(events[i].EventCode);
            row["code"] = events[i].EventCode;
            rows.push_back(std::move(row));
        }
    }
    return rows;
}

void run(Context& ctx) {
    for (const SelectedPort& port : ctx.ports())
        if (const uint32_t status = SDEnableAen(port.handle); status != SDM_STATUS_SUCCESS)
            ctx.partial(fmt::format("port {}: event registration", port.instance), status);
    std::vector<json> all;
    for (int second = 0; follow || second < WAIT_SECONDS; ++second) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        std::vector<json> rows = take_events(ctx);
        if (!follow) {
            all.insert(all.end(), rows.begin(), rows.end());
            continue;
        }
        for (json& row : rows) {
            if (ctx.json_output()) {
                json line = json{{"schema", JSON_SCHEMA}};
                line.update(row);
                std::fputs((line.dump() + "\n").c_str(), stdout);
            } else {
                ctx.print(fmt::format("{} port {} host {} {} ({})\n", row["time"].get<std::string>(),
                                      row["instance"].get<uint32_t>(), row["host"].is_null() ? "-" : row["host"].dump(),
                                      row["event"].get<std::string>(), row["code"].get<uint32_t>()));
            }
        }
        std::fflush(stdout);
    }
    ctx.doc()["events"] = all;
    ctx.print_table(columns(), all);
}

}  // namespace

Command events_command() {
    return {"events", "[PORT...]", "Show the ports' link and fabric events",
            "Switches event delivery on for every port (or the PORTs given) and shows the events that arrive: "
            "link up and down, LIPs, RSCNs, port database and state changes. The library collects them every 15 "
            "seconds, so vxcli waits that long and prints what came. With --follow it prints each event as it "
            "arrives, one line each (with --json one JSON object per line), until it is stopped.",
            PortArg::Any, &columns(), false, options, run};
}

}  // namespace vxcli
