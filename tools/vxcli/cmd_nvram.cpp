// vxcli nvram: a port's boot-time settings (NVRAM variables), listed, read
// one at a time, or changed.
// CLI11's headers trip GCC 12's null-dereference check (see cli.cpp).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#pragma GCC diagnostic pop
#include <fmt/format.h>

#include <array>
#include <cstring>

#include "commands.h"
#include "terminal.h"
#include "vsdnvram.h"

namespace vxcli {

namespace {

std::string action, number_arg, value_arg;
bool no_reset = false;

const std::vector<TableColumn>& columns() {
    static const std::vector<TableColumn> c = {
        {"NUMBER", "number", true},
        {"DESCRIPTION", "description"},
        {"VALUE", "value", true},
        {"READ ONLY", "read_only", false,
         [](const json& row) { return std::string(row.value("read_only", false) ? "yes" : "no"); }},
    };
    return c;
}

// Room for either layout: the library moves the port's own image and no more.
using Image = std::array<SD_UINT8, NVRAM_SWIFT_IMAGE_SIZE>;

std::optional<uint32_t> parse_number(const std::string& text) {
    if (text.empty() || text[0] == '-' || text[0] == '+')
        return std::nullopt;
    try {
        size_t used = 0;
        const unsigned long long v = std::stoull(text, &used, 0);
        if (used != text.size() || v > UINT32_MAX)
            return std::nullopt;
        return static_cast<uint32_t>(v);
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

json variable(int handle, const Image& image, uint32_t n) {
    const char* text = VXSDNVR_GetVariableDescription(image.data(), n);
    return {{"number", n},
            {"description", text ? json(text) : json()},
            {"value", SDGetVariableValue(handle, image.data(), n)},
            {"read_only", VXSDNVR_IsVariableReadOnly(image.data(), n) == SDM_STATUS_SUCCESS},
            {"visible", VXSDNVR_IsVariableVisible(image.data(), n) == SDM_STATUS_SUCCESS}};
}

std::string described(const json& v) {
    return v["description"].is_null() ? fmt::format("variable {}", v["number"].get<uint32_t>())
                                      : fmt::format("variable {} ({})", v["number"].get<uint32_t>(),
                                                    v["description"].get<std::string>());
}

// Refusals come before anything goes into the document: it then holds the
// failure only, as for any other command-line error.
void set(Context& ctx, const SelectedPort& port, const Image& image, uint32_t n, uint32_t value) {
    const json before = variable(port.handle, image, n);
    if (before["read_only"])
        return ctx.fail(EXIT_USAGE, fmt::format("{} is read-only on this adapter; nothing written", described(before)));
    Image changed = image;
    SDSetVariableValue(port.handle, changed.data(), n, value);
    const uint32_t stored = SDGetVariableValue(port.handle, changed.data(), n);
    if (stored != value)
        return ctx.fail(EXIT_USAGE, fmt::format("{} cannot hold {} (it would read {}); nothing written",
                                                described(before), value_arg, stored));
    const uint32_t previous = before["value"];
    if (changed == image) {
        ctx.doc().update(port_identity(port));
        ctx.doc()["variable"] = before;
        ctx.doc()["previous"] = previous;
        ctx.doc()["changed"] = false;
        ctx.print(fmt::format("{} already is {}: nothing written\n", described(before), stored));
        return;
    }
    if (!confirmed(ctx, fmt::format("Set {} of port {} from {} to {}?", described(before), port.instance, previous,
                                    stored)))
        return;
    ctx.doc().update(port_identity(port));
    const SD_UINT32 st = SDUpdateNVRam(port.handle, no_reset ? 1 : 0, 0, changed.data(), changed.size());
    if (st != SDM_STATUS_SUCCESS) {
        ctx.doc()["variable"] = ctx.partial(fmt::format("port {}: NVRAM update", port.instance), st);
        return;
    }
    ctx.doc()["variable"] = variable(port.handle, changed, n);
    ctx.doc()["previous"] = previous;
    ctx.doc()["changed"] = true;
    ctx.print(fmt::format("{} set to {} (was {}){}\n", described(before), stored, previous,
                          no_reset ? "; takes effect at the next adapter reset" : ""));
}

void run(Context& ctx) {
    const SelectedPort& port = ctx.ports().front();
    std::optional<uint32_t> n, value;
    if (!action.empty()) {
        if (number_arg.empty())
            return ctx.fail(EXIT_USAGE, fmt::format("nvram: {} takes a variable number", action));
        n = parse_number(number_arg);
        if (!n || *n >= NVRAMVarEnd)
            return ctx.fail(EXIT_USAGE, fmt::format("nvram: no variable '{}': give a number from 0 to {}",
                                                    number_arg, NVRAMVarEnd - 1));
        if ((action == "get") != value_arg.empty())
            return ctx.fail(EXIT_USAGE, action == "get" ? "nvram: get takes a variable number only"
                                                        : "nvram: set takes a variable number and a value");
        if (action == "set" && !(value = parse_number(value_arg)))
            return ctx.fail(EXIT_USAGE, fmt::format("nvram: bad value '{}': give a number (decimal or 0x hexadecimal)",
                                                    value_arg));
    }
    Image image{};
    const SD_UINT32 st = SDGetNVRam(port.handle, 0, 0, image.data(), image.size());
    if (action == "set" && st == SDM_STATUS_SUCCESS)
        return set(ctx, port, image, *n, *value);
    ctx.doc().update(port_identity(port));
    if (st != SDM_STATUS_SUCCESS) {
        ctx.doc()[action.empty() ? "variables" : "variable"] =
            ctx.partial(fmt::format("port {}: NVRAM", port.instance), st);
        return;
    }
    if (action == "get") {
        const json v = variable(port.handle, image, *n);
        ctx.doc()["variable"] = v;
        ctx.print(ctx.table_text(columns(), {v}));
        return;
    }
    std::vector<json> rows;
    for (uint32_t i = 0; i < NVRAMVarEnd; ++i)
        if (VXSDNVR_IsVariableVisible(image.data(), i) == SDM_STATUS_SUCCESS)
            rows.push_back(variable(port.handle, image, i));
    ctx.doc()["variables"] = rows;
    ctx.print_table(columns(), rows);
}

void options(CLI::App& app) {
    app.add_option("ACTION", action, "get or set")->check(CLI::IsMember({"get", "set"}));
    app.add_option("N", number_arg, "The variable's number");
    app.add_option("VALUE", value_arg, "The new value");
    app.add_flag("--no-reset", no_reset,
                 "Write without having the ports reload their settings (they take effect at the next adapter reset)");
}

}  // namespace

Command nvram_command() {
    return {"nvram", "PORT [get N | set N VALUE]", "Show or change a port's boot-time settings (NVRAM variables)",
            "Without an action, lists every NVRAM variable the adapter shows: its number, description, value and "
            "whether it is read-only. 'get N' shows variable N. 'set N VALUE' changes it (VALUE decimal or 0x "
            "hexadecimal): the image is written only when the value changes, after confirmation (or with --yes); "
            "read-only variables and values the variable cannot hold are refused. After a write the ports reload "
            "their settings unless --no-reset is given.",
            PortArg::One, &columns(), true, options, run};
}

}  // namespace vxcli
