// Talking to the person at the terminal during long or destructive
// operations: a progress display and a confirmation prompt.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

namespace vxcli {

class Context;

// "label [##########----------]  50%": the bar `width` characters wide.
std::string progress_bar(const std::string& label, uint64_t done, uint64_t total, size_t width = 30);

// Progress of a long operation on standard error (standard output may carry
// JSON). On a terminal one line redrawn in place; otherwise (a log, a pipe)
// a plain line at each tenth, so logs stay short and readable.
class Progress {
public:
    // `terminal` defaults to whether `out` is one.
    Progress(std::string label, uint64_t total, FILE* out = stderr, std::optional<bool> terminal = std::nullopt);
    ~Progress() { finish(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void update(uint64_t done);
    // Ends the display (the bar's line is closed); called by the destructor.
    // A display ended before its total stays where it stopped.
    void finish();

private:
    std::string label_;
    uint64_t total_;
    FILE* out_;
    bool terminal_;
    int shown_ = -1;  // the percent (terminal) or tenth (plain lines) last shown
    bool finished_ = false;
};

enum class Answer { Yes, No, NoTerminal };

// Asks "<question> [y/N] " on `out` and reads one line from `in`: "y" or
// "yes" in any case is yes, anything else (an empty line, end of input) no.
// Without a terminal on `in` nothing is asked: a script must say --yes
// rather than have a stray line of input taken as an answer.
Answer ask(const std::string& question, FILE* in = stdin, FILE* out = stderr,
           std::optional<bool> terminal = std::nullopt);

// For commands that change an adapter: true to go on (--yes, or a yes
// answer); otherwise the refusal is recorded in the context (exit code 1).
bool confirmed(Context& ctx, const std::string& question);

}  // namespace vxcli
