// The frame every vxcli command runs in: the command table, the shared
// options, port selection, the output (table or JSON) and the exit code.
// A command is a `Command` record and a run function; docs/vxcli.md
// ("Conventions for new commands") says how to add one.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ports.h"
#include "table.h"

namespace CLI {
class App;
}

namespace vxcli {

using json = nlohmann::ordered_json;

enum Exit : int {
    EXIT_OK = 0,
    EXIT_USAGE = 1,        // bad command line, or an action the user did not confirm
    EXIT_NO_ADAPTERS = 2,  // none found, or no port matches the selection
    EXIT_LIBRARY = 3,      // the library did not load
    EXIT_PARTIAL = 4,      // some port or query failed; what could be read is shown
};

// Version of the JSON documents. Raised only when a key changes meaning or
// goes away; new keys do not raise it.
inline constexpr int JSON_SCHEMA = 1;

// The ports a command takes on its command line.
enum class PortArg {
    None,  // no port
    One,   // exactly one PORT
    Any,   // zero or more; none means every port
};

// What the command line set for every command. A command's own options
// (Command::options) bind to variables in its own file.
struct Options {
    bool json = false;
    bool yes = false;                  // only on commands that ask (Command::confirms)
    std::vector<std::string> columns;  // --columns, on commands with a table
    std::vector<std::string> ports;    // the PORT arguments as given
};

class Context;

struct Command {
    const char* name;
    const char* args;         // usage after the name, e.g. "PORT" (without the shared options)
    const char* summary;      // one line, for the command list
    const char* description;  // the paragraph of `vxcli help <name>`
    PortArg ports = PortArg::None;
    const std::vector<TableColumn>* table = nullptr;  // offers --columns over these columns
    bool confirms = false;                            // offers --yes
    void (*options)(CLI::App&) = nullptr;             // adds the command's own options
    void (*run)(Context&) = nullptr;
};

// The command table, in the order `vxcli --help` lists it.
const std::vector<Command>& commands();
const Command* find_command(const std::string& name);

// One failure, as printed on standard error and carried in the JSON output.
struct Failure {
    int exit = EXIT_OK;
    std::string message;
    std::optional<uint32_t> status;  // the SD status, when one caused it
};

// {"instance", "handle", "host"}: the keys that name a port in every document.
json port_identity(const SelectedPort& port);

// The JSON form of a failure: {"message", "status"}.
json failure_json(const Failure& f);

class Context {
public:
    Context(const Command& command, Options options) : command_(command), opt_(std::move(options)) {}

    const Command& command() const { return command_; }
    const Options& options() const { return opt_; }
    bool json_output() const { return opt_.json; }

    // The ports selected on the command line, resolved before the command runs.
    const std::vector<SelectedPort>& ports() const { return ports_; }
    std::vector<SelectedPort>& ports() { return ports_; }
    PortSession& session() { return session_; }

    // Records a failure: "vxcli: <message>" on standard error now, the
    // "error" object of the JSON output later. EXIT_PARTIAL lets the command
    // go on; any other code means it should stop (see stopped()).
    void fail(int exit, std::string message, std::optional<uint32_t> status = std::nullopt);
    // A failed SD call of some port: partial, "<what> failed: <status text>".
    // Returns the Failure's JSON form for the item that could not be read.
    json partial(const std::string& what, uint32_t status);
    bool stopped() const;
    int exit_code() const;
    const std::vector<Failure>& failures() const { return failures_; }

    // The JSON document; "schema" is its first key, "error" is added last
    // when something failed.
    json& doc() { return doc_; }
    // Table output: written to standard output at once (not with --json).
    void print(const std::string& text) const;
    // Rows as a table; --columns applies to the command's own table.
    std::string table_text(const std::vector<TableColumn>& columns, const std::vector<json>& rows) const;
    void print_table(const std::vector<TableColumn>& columns, const std::vector<json>& rows) const {
        print(table_text(columns, rows));
    }

    // Prints the JSON document (when --json) and gives the exit code.
    int finish();

private:
    const Command& command_;
    Options opt_;
    std::vector<SelectedPort> ports_;
    PortSession session_;
    std::vector<Failure> failures_;
    json doc_ = json{{"schema", JSON_SCHEMA}};
};

// The whole tool: parses the command line and runs a command.
int run_vxcli(int argc, char** argv);

// The help texts, built from the command table.
std::string main_help();
std::string command_help(const Command& command, const CLI::App& app);

// Completion candidates for the words typed so far (the last one is being
// completed, possibly empty), one per line; used by the bash completion.
std::string complete(const std::vector<std::string>& words, const CLI::App& app);

}  // namespace vxcli
