// The command frame: parsing, help, errors, port selection, output and the
// exit code, the same for every command.
#include "cli.h"

// GCC 12 sees a null dereference in CLI11's string splitting that cannot
// happen (a moved-from string in vector growth); the rest of this file keeps
// the warning through every other option.
#pragma GCC diagnostic ignored "-Wnull-dereference"
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>

#include "format.h"
#include "vsdmgt.h"

#ifndef VXCLI_VERSION
#define VXCLI_VERSION "unknown"
#endif

namespace vxcli {

namespace {

constexpr const char* ABOUT =
    "Shows the Varnex Fibre Channel and FCoE adapter ports that libvxsdm finds: their properties, and the "
    "remote ports, targets and LUNs they have discovered. Runs as root, like the library.";
constexpr const char* PORT_HELP =
    "PORT is an instance number as `vxcli list` prints it (0, 1, ...), a WWPN (21:00:00:1d:5a:01:40:17 or "
    "0x2100001d5a014017) or a SCSI host (host7).";
constexpr const char* EXIT_HELP =
    "Exit status: 0 success, 1 bad command line, 2 no adapters found or no port matches, 3 the library did not "
    "load, 4 some ports or queries failed (what could be read is shown).";
constexpr const char* JSON_HELP = "Print JSON instead of a table (for scripts)";
constexpr const char* COMPLETE = "__complete";  // the bash completion's helper, not listed

// Words of `text` wrapped at 78 columns, each line indented by `indent`.
std::string wrap(const std::string& text, size_t indent = 0) {
    std::string out, line;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(' ', start);
        if (end == std::string::npos)
            end = text.size();
        const std::string word = text.substr(start, end - start);
        if (!line.empty() && indent + line.size() + 1 + word.size() > 78) {
            out += std::string(indent, ' ') + line + "\n";
            line.clear();
        }
        line += (line.empty() ? "" : " ") + word;
        start = end + 1;
    }
    if (!line.empty())
        out += std::string(indent, ' ') + line + "\n";
    return out;
}

std::string option_names(const CLI::Option& opt) {
    std::string names = opt.get_name(false, true);
    for (size_t at = names.find(','); at != std::string::npos; at = names.find(',', at + 2))
        names.replace(at, 1, ", ");
    if (opt.get_type_size() != 0)
        names += " " + opt.get_type_name();
    return names;
}

std::string option_lines(const std::vector<std::pair<std::string, std::string>>& options) {
    size_t width = 0;
    for (const auto& [names, text] : options)
        width = std::max(width, names.size());
    std::string out;
    for (const auto& [names, text] : options)
        out += fmt::format("  {:<{}}  {}\n", names, width, text);
    return out;
}

// The first word of a two-word command ("flash" of "flash read").
bool is_group(const std::string& word) {
    for (const Command& c : commands())
        if (std::string(c.name).starts_with(word + " "))
            return true;
    return false;
}

// The actions of a group, for its usage error and completion.
std::vector<std::string> group_actions(const std::string& group) {
    std::vector<std::string> out;
    for (const Command& c : commands())
        if (std::string(c.name).starts_with(group + " "))
            out.push_back(std::string(c.name).substr(group.size() + 1));
    return out;
}

// What the command line holds besides CLI11's parse: enough to answer
// --json and name the command even when parsing fails.
struct Prescan {
    bool json = false;
    bool help = false;
    std::string command;  // the first word that is not an option
};

Prescan prescan(int argc, char** argv) {
    Prescan p;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--")
            break;
        if (a == "--json")
            p.json = true;
        else if (a == "-h" || a == "--help")
            p.help = true;
        else if (!a.starts_with("-") && (p.command.empty() || (is_group(p.command) && !find_command(p.command))))
            p.command = p.command.empty() ? a : p.command + " " + a;
    }
    return p;
}

// Prints a document that holds only the failure (usage errors, before any
// command ran), the way Context::finish would.
int usage_error(bool json_output, const std::string& message) {
    Options opt;
    opt.json = json_output;
    Context ctx(commands().front(), std::move(opt));
    ctx.fail(EXIT_USAGE, message);
    return ctx.finish();
}

std::string version_line() {
    char text[32] = {};
    SDGetVersion(text);
    return fmt::format("vxcli {} (libvxsdm {})", VXCLI_VERSION, text);
}

}  // namespace

// ---- Context ----

json failure_json(const Failure& f) {
    json out{{"message", f.message}};
    if (f.status)
        out["status"] = *f.status;
    return out;
}

json port_identity(const SelectedPort& port) {
    return json{{"instance", port.instance}, {"handle", port.handle}, {"host", port.host ? json(*port.host) : json()}};
}

void Context::fail(int exit, std::string message, std::optional<uint32_t> status) {
    std::fflush(stdout);  // the line goes after what was printed before it
    fmt::print(stderr, "vxcli: {}\n", message);
    failures_.push_back({exit, std::move(message), status});
}

json Context::partial(const std::string& what, uint32_t status) {
    fail(EXIT_PARTIAL, what + " failed: " + status_text(status), status);
    return failure_json(failures_.back());
}

bool Context::stopped() const {
    for (const Failure& f : failures_)
        if (f.exit != EXIT_PARTIAL)
            return true;
    return false;
}

int Context::exit_code() const {
    int code = EXIT_OK;
    for (const Failure& f : failures_) {
        if (f.exit != EXIT_PARTIAL)
            return f.exit;
        code = EXIT_PARTIAL;
    }
    return code;
}

void Context::print(const std::string& text) const {
    if (!opt_.json)
        std::fwrite(text.data(), 1, text.size(), stdout);
}

std::string Context::table_text(const std::vector<TableColumn>& columns, const std::vector<json>& rows) const {
    std::string unknown;
    const auto shown = select_columns(columns, &columns == command_.table ? opt_.columns : std::vector<std::string>{},
                                      unknown);
    return shown ? render_table(columns, *shown, rows) : "";  // names were checked before the command ran
}

int Context::finish() {
    const int code = exit_code();
    if (!opt_.json)
        return code;
    if (!failures_.empty()) {
        json error{{"exit", code}};
        json messages = json::array();
        for (const Failure& f : failures_) {
            if (!error.contains("message") && f.exit == code)
                error["message"] = f.message;
            messages.push_back(f.message);
        }
        error["messages"] = std::move(messages);
        doc_["error"] = std::move(error);
    }
    // Adapter texts are not always UTF-8: replace what JSON cannot carry.
    fmt::print("{}\n", doc_.dump(2, ' ', false, json::error_handler_t::replace));
    return code;
}

const Command* find_command(const std::string& name) {
    for (const Command& c : commands())
        if (name == c.name)
            return &c;
    return nullptr;
}

// ---- Help ----

std::string main_help() {
    std::string out = "Usage: vxcli [--json] COMMAND [ARGS...]\n\n" + wrap(ABOUT) + "\nCommands:\n";
    std::vector<std::pair<std::string, std::string>> lines;
    for (const Command& c : commands())
        lines.emplace_back(c.name, c.summary);
    lines.emplace_back("help", "Show the help of a command (also: vxcli COMMAND --help)");
    out += option_lines(lines);
    out += "\nOptions:\n" + option_lines({{"-h, --help", "Show this help"},
                                          {"--version", "Show the versions of vxcli and the library"},
                                          {"--json", JSON_HELP}});
    out += "\n" + wrap(PORT_HELP) + "\n" + wrap(EXIT_HELP);
    return out;
}

std::string command_help(const Command& command, const CLI::App& app) {
    std::string usage = fmt::format("Usage: vxcli {} [OPTIONS]", command.name);
    if (*command.args)
        usage += std::string(" ") + command.args;
    std::string out = usage + "\n\n" + wrap(command.description);
    std::vector<std::pair<std::string, std::string>> lines{{"--json", JSON_HELP}};
    for (const CLI::Option* opt : app.get_options())
        if (!opt->get_positional())
            lines.emplace_back(option_names(*opt), opt->get_description());
    out += "\nOptions:\n" + option_lines(lines);
    if (command.table) {
        std::string names;
        for (const TableColumn& c : *command.table)
            names += (names.empty() ? "" : ",") + column_name(c);
        out += "\n" + wrap("Columns: " + names);
    }
    if (command.ports != PortArg::None)
        out += "\n" + wrap(PORT_HELP);
    return out;
}

// ---- The command line ----

int run_vxcli(int argc, char** argv) try {
    const Prescan pre = prescan(argc, argv);
    if (is_group(pre.command) && !pre.help) {
        std::string actions;
        for (const std::string& a : group_actions(pre.command))
            actions += (actions.empty() ? "" : ", ") + a;
        return usage_error(pre.json, fmt::format("{}: name what to do: {}; see 'vxcli help'", pre.command, actions));
    }
    if (!pre.command.empty() && pre.command != "help" && pre.command != COMPLETE && !find_command(pre.command) &&
        !is_group(pre.command))
        return usage_error(pre.json, fmt::format("unknown command '{}'; 'vxcli help' lists the commands", pre.command));

    CLI::App app{ABOUT, "vxcli"};
    app.set_help_flag();  // help is ours: one text per command, built from the table
    bool help = false, version = false;  // -h is answered before parsing (see below)
    Options opt;
    app.add_flag("-h,--help", help);
    app.add_flag("--version", version);
    app.add_flag("--json", opt.json);

    std::map<std::string, CLI::App*> subs, groups;
    std::string port, columns;
    for (const Command& c : commands()) {
        // A two-word command is an action of its group ("flash read").
        const std::string name = c.name;
        const size_t space = name.find(' ');
        CLI::App* parent = &app;
        if (space != std::string::npos) {
            CLI::App*& group = groups[name.substr(0, space)];
            if (!group) {
                group = app.add_subcommand(name.substr(0, space), "");
                group->set_help_flag();
                group->add_flag("-h,--help", help, "Show this help");
                group->fallthrough();
                group->require_subcommand(1);
            }
            parent = group;
        }
        CLI::App* sub = parent->add_subcommand(space == std::string::npos ? name : name.substr(space + 1), c.summary);
        sub->set_help_flag();
        sub->add_flag("-h,--help", help, "Show this help");
        sub->fallthrough();  // --json after the command too
        if (c.ports == PortArg::One)
            sub->add_option("PORT", port)->required();
        else if (c.ports == PortArg::Any)
            sub->add_option("PORT", opt.ports);
        if (c.table)
            sub->add_option("--columns", columns, "Show only these columns (names below), in this order")
                ->type_name("LIST");
        if (c.confirms)
            sub->add_flag("-y,--yes", opt.yes, "Do not ask for confirmation");
        if (c.options)
            c.options(*sub);
        subs[c.name] = sub;
    }
    std::vector<std::string> help_words;
    CLI::App* help_cmd = app.add_subcommand("help", "Show the help of a command");
    help_cmd->set_help_flag();
    help_cmd->fallthrough();
    help_cmd->add_option("COMMAND", help_words);
    CLI::App* complete_cmd = app.add_subcommand(COMPLETE, "")->group("");
    complete_cmd->set_help_flag();
    complete_cmd->prefix_command();  // takes every word as it is, options too
    app.require_subcommand(0, 1);

    // Help needs no complete command line: `vxcli show --help` has no PORT.
    if (pre.help && pre.command != COMPLETE) {
        const Command* c = find_command(pre.command);
        fmt::print("{}", c ? command_help(*c, *subs[c->name]) : main_help());
        return EXIT_OK;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        std::string what = e.what();
        for (char& ch : what)
            ch = ch == '\n' ? ' ' : ch;
        if (pre.command.empty())
            return usage_error(pre.json, what + "; see 'vxcli --help'");
        return usage_error(pre.json, fmt::format("{}: {}; see 'vxcli help {}'", pre.command, what, pre.command));
    }

    if (complete_cmd->parsed()) {
        fmt::print("{}", complete(complete_cmd->remaining(), app));
        return EXIT_OK;
    }
    if (version) {
        fmt::print("{}\n", version_line());
        return EXIT_OK;
    }
    if (help_cmd->parsed()) {
        std::string help_topic;
        for (const std::string& w : help_words)
            help_topic += (help_topic.empty() ? "" : " ") + w;
        const Command* topic = find_command(help_topic);
        if (!topic && !help_topic.empty() && help_topic != "help")
            return usage_error(pre.json, fmt::format("unknown command '{}'; 'vxcli help' lists the commands", help_topic));
        fmt::print("{}", topic ? command_help(*topic, *subs[topic->name]) : main_help());
        return EXIT_OK;
    }
    const Command* command = nullptr;
    for (const Command& c : commands())
        if (subs[c.name]->parsed())
            command = &c;
    if (!command)
        return usage_error(pre.json, "no command given; 'vxcli help' lists the commands");

    if (command->ports == PortArg::One)
        opt.ports = {port};
    for (size_t at = 0; at < columns.size();) {
        const size_t end = std::min(columns.find(',', at), columns.size());
        opt.columns.push_back(columns.substr(at, end - at));
        at = end + 1;
    }
    Context ctx(*command, std::move(opt));
    std::string unknown;
    if (command->table && !select_columns(*command->table, ctx.options().columns, unknown)) {
        ctx.fail(EXIT_USAGE, fmt::format("{}: no column '{}'; see 'vxcli help {}'", command->name, unknown, command->name));
        return ctx.finish();
    }
    if (command->ports != PortArg::None)
        select_ports(ctx);
    if (!ctx.stopped())
        command->run(ctx);
    return ctx.finish();
} catch (const std::exception& e) {
    std::fflush(stdout);
    fmt::print(stderr, "vxcli: internal error: {}\n", e.what());
    return EXIT_USAGE;
}

std::string complete(const std::vector<std::string>& words, const CLI::App& app) {
    const std::string cur = words.empty() ? "" : words.back();
    const std::string prev = words.size() > 1 ? words[words.size() - 2] : "";
    const Command* command = nullptr;
    bool help_topic = false;
    for (size_t i = 0; i + 1 < words.size() && !command && !help_topic; ++i) {
        if (words[i].starts_with("-"))
            continue;
        command = find_command(words[i]);
        help_topic = words[i] == "help";
        if (!command && is_group(words[i])) {
            if (i + 2 >= words.size()) {  // the action is being typed
                std::string out;
                for (const std::string& a : group_actions(words[i]))
                    if (a.starts_with(cur))
                        out += a + "\n";
                return out;
            }
            command = find_command(words[i] + " " + words[i + 1]);
            ++i;
        }
        if (!command && !help_topic)
            return "";  // an unknown command: nothing to offer
    }

    std::vector<std::string> candidates;
    std::string keep;  // the part of `cur` a candidate continues (a column list so far)
    if (!command && (help_topic || !cur.starts_with("-"))) {
        for (const Command& c : commands()) {
            const std::string word = std::string(c.name).substr(0, std::string(c.name).find(' '));
            if (std::find(candidates.begin(), candidates.end(), word) == candidates.end())
                candidates.push_back(word);
        }
        if (!help_topic)
            candidates.push_back("help");
    } else if (!command) {
        candidates = {"--help", "--json", "--version"};
    } else if (prev == "--columns" && command->table) {
        keep = cur.substr(0, cur.rfind(',') == std::string::npos ? 0 : cur.rfind(',') + 1);
        for (const TableColumn& c : *command->table)
            candidates.push_back(keep + column_name(c));
    } else if (cur.starts_with("-")) {
        candidates.push_back("--json");
        const std::string full = command->name;
        const size_t space = full.find(' ');
        const CLI::App* sub = space == std::string::npos
                                  ? app.get_subcommand(full)
                                  : app.get_subcommand(full.substr(0, space))->get_subcommand(full.substr(space + 1));
        for (const CLI::Option* opt : sub->get_options())
            for (const std::string& name : opt->get_lnames())
                candidates.push_back("--" + name);
    } else if (command->ports != PortArg::None) {
        for (const FcHost& h : fc_hosts()) {
            candidates.push_back(fmt::format("host{}", h.host));
            candidates.push_back(wwn_text(h.wwpn));
        }
    }
    std::string out;
    for (const std::string& c : candidates)
        if (c.starts_with(cur))
            out += c + "\n";
    return out;
}

}  // namespace vxcli
