// vxcli params: the driver's module parameters: all of them, one, or one
// set (at run time, and with --persist in the driver's options file).
#include <CLI/CLI.hpp>
#include <dirent.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "commands.h"
#include "format.h"
#include "terminal.h"
#include "vsdmgt.h"

namespace vxcli {

namespace {

constexpr const char* PARAM_DIR = "/sys/module/vxfcdrv/parameters";
constexpr const char* CONF_FILE = "/etc/modprobe.d/vxfcdrv.conf";

struct ParamArgs {
    std::vector<std::string> words;
    bool persist = false;
} args;

void options(CLI::App& app) {
    app.add_option("ACTION", args.words, "get NAME, or set NAME VALUE; nothing lists every parameter");
    app.add_flag("--persist", args.persist, "With set: also record the value in " + std::string(CONF_FILE));
}

const std::vector<TableColumn>& columns() {
    static const std::vector<TableColumn> c = {
        {"NAME", "name", false, nullptr},
        {"VALUE", "value", true, [](const json& r) { return r["value"].is_null() ? std::string("-") : r["value"].dump(); }},
    };
    return c;
}

// Why a parameter could not be read or set.
std::string why(uint32_t st) {
    switch (st) {
    case SDM_STATUS_INVALID_PARAMETER: return "not a parameter name";
    case SDM_STATUS_NOT_SUPPORTED: return "the driver has no such parameter";
    default: return status_text(st);
    }
}

int exit_of(uint32_t st) {
    return st == SDM_STATUS_INVALID_PARAMETER || st == SDM_STATUS_NOT_SUPPORTED ? EXIT_USAGE : EXIT_PARTIAL;
}

void list(Context& ctx) {
    std::vector<std::string> names;
    if (DIR* dir = opendir(PARAM_DIR)) {
        while (const dirent* e = readdir(dir))
            if (e->d_name[0] != '.')
                names.emplace_back(e->d_name);
        closedir(dir);
    }
    if (names.empty())
        return ctx.fail(EXIT_NO_ADAPTERS, fmt::format("no driver parameters in {}: is the vxfcdrv module loaded?", PARAM_DIR));
    std::sort(names.begin(), names.end());
    std::vector<json> rows;
    for (const std::string& name : names) {
        SD_UINT32 value = 0;
        const uint32_t st = SDGetDriverModuleParam(name.c_str(), &value);
        json row{{"name", name}, {"value", st == 0 ? json(value) : json()}};
        if (st != 0)
            row["error"] = ctx.partial(fmt::format("parameter {}", name), st);
        rows.push_back(std::move(row));
    }
    ctx.doc()["parameters"] = rows;
    ctx.print_table(columns(), rows);
}

void get(Context& ctx, const std::string& name) {
    SD_UINT32 value = 0;
    if (const uint32_t st = SDGetDriverModuleParam(name.c_str(), &value); st != 0)
        return ctx.fail(exit_of(st), fmt::format("parameter {}: {}", name, why(st)), st);
    ctx.doc()["name"] = name;
    ctx.doc()["value"] = value;
    ctx.print(fmt::format("{} {}\n", name, value));
}

void set(Context& ctx, const std::string& name, const std::string& text) {
    uint32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size())
        return ctx.fail(EXIT_USAGE, fmt::format("params set: the value must be a number from 0 to 4294967295, not '{}'", text));
    SD_UINT32 old = 0;
    if (const uint32_t st = SDGetDriverModuleParam(name.c_str(), &old); st != 0)
        return ctx.fail(exit_of(st), fmt::format("parameter {}: {}", name, why(st)), st);
    const std::string where = args.persist ? fmt::format(" now and in {}", CONF_FILE) : std::string(" until the driver reloads");
    if (!confirmed(ctx, fmt::format("Set driver parameter {} from {} to {}{}?", name, old, value, where)))
        return;
    if (const uint32_t st = SDSetDriverModuleParam(name.c_str(), value, args.persist ? 1 : 0); st != 0)
        return ctx.fail(exit_of(st), fmt::format("parameter {}: {}", name, why(st)), st);
    SD_UINT32 now = 0;
    SDGetDriverModuleParam(name.c_str(), &now);
    ctx.doc()["name"] = name;
    ctx.doc()["previous"] = old;
    ctx.doc()["value"] = now;
    ctx.doc()["persisted"] = args.persist;
    ctx.print(fmt::format("{} {} (was {}){}\n", name, now, old,
                          args.persist ? fmt::format("; recorded in {} (a previous file is kept as {}.bak)", CONF_FILE, CONF_FILE)
                                       : std::string()));
}

void run(Context& ctx) {
    const std::vector<std::string>& w = args.words;
    if (args.persist && (w.empty() || w[0] != "set"))
        return ctx.fail(EXIT_USAGE, "params: --persist goes with set");
    if (w.empty())
        return list(ctx);
    if (w[0] == "get" && w.size() == 2)
        return get(ctx, w[1]);
    if (w[0] == "set" && w.size() == 3)
        return set(ctx, w[1], w[2]);
    ctx.fail(EXIT_USAGE, "params: say nothing (list), get NAME, or set NAME VALUE");
}

}  // namespace

Command params_command() {
    return {"params", "[get NAME | set NAME VALUE [--persist]]", "List, read or set the driver's module parameters",
            "Without an action, lists every module parameter of the vxfcdrv driver with its value. 'get NAME' prints "
            "one; 'set NAME VALUE' changes it at run time after asking (unless --yes), and with --persist also "
            "records it in the first line of /etc/modprobe.d/vxfcdrv.conf for the next driver load (the previous "
            "file is kept as vxfcdrv.conf.bak; only the first line is kept, and parameters named there are one-digit "
            "flags: a value other than 0 or 1 leaves a line that names the parameter as it was). Needs no adapter.",
            PortArg::None, &columns(), true, options, run};
}

}  // namespace vxcli
