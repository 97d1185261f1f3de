#include "terminal.h"

#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>

#include "cli.h"

namespace vxcli {

namespace {

int percent(uint64_t done, uint64_t total) {
    if (total == 0 || done >= total)
        return 100;
    return static_cast<int>(static_cast<long double>(done) * 100 / static_cast<long double>(total));
}

bool is_terminal(FILE* f) { return f && isatty(fileno(f)) == 1; }

}  // namespace

std::string progress_bar(const std::string& label, uint64_t done, uint64_t total, size_t width) {
    const int pct = percent(done, total);
    const size_t filled = width * static_cast<size_t>(pct) / 100;
    return fmt::format("{} [{}{}] {:3}%", label, std::string(filled, '#'), std::string(width - filled, '-'), pct);
}

Progress::Progress(std::string label, uint64_t total, FILE* out, std::optional<bool> terminal)
    : label_(std::move(label)), total_(total), out_(out), terminal_(terminal.value_or(is_terminal(out))) {
    update(0);
}

void Progress::update(uint64_t done) {
    if (finished_)
        return;
    const int pct = percent(done, total_);
    if (terminal_) {
        if (pct == shown_)
            return;
        fmt::print(out_, "\r{}", progress_bar(label_, done, total_));
    } else {
        if (pct / 10 == shown_)
            return;
        fmt::print(out_, "{}: {}%\n", label_, pct / 10 * 10);
    }
    shown_ = terminal_ ? pct : pct / 10;
    std::fflush(out_);
}

void Progress::finish() {
    if (finished_)
        return;
    finished_ = true;
    if (terminal_)
        fmt::print(out_, "\n");
    std::fflush(out_);
}

Answer ask(const std::string& question, FILE* in, FILE* out, std::optional<bool> terminal) {
    if (!terminal.value_or(is_terminal(in)))
        return Answer::NoTerminal;
    fmt::print(out, "{} [y/N] ", question);
    std::fflush(out);
    std::string line;
    for (int c; (c = std::fgetc(in)) != EOF && c != '\n';)
        line += static_cast<char>(std::tolower(c));
    line.erase(0, line.find_first_not_of(" \t"));
    line.erase(line.find_last_not_of(" \t\r") + 1);
    return line == "y" || line == "yes" ? Answer::Yes : Answer::No;
}

bool confirmed(Context& ctx, const std::string& question) {
    if (ctx.options().yes)
        return true;
    switch (ask(question)) {
    case Answer::Yes: return true;
    case Answer::No: ctx.fail(EXIT_USAGE, "not confirmed; nothing was changed"); return false;
    case Answer::NoTerminal:
        ctx.fail(EXIT_USAGE, fmt::format("{}: give --yes to confirm (standard input is not a terminal)", ctx.command().name));
        return false;
    }
    return false;
}

}  // namespace vxcli
