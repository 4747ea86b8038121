// report.cpp -- prints messages of one line, and keeps signals until they are checked for.
#include "report.h"

#include <atomic>
#include <csignal>
#include <new>
#include <syslog.h>
#include <unistd.h>

namespace {

std::string sProgramName = "pelagoHost";
std::atomic<int> sSignal; // the first signal that arrived, or 0
bool sIsUninterrupted = false;

bool IsControl(unsigned char byte) { return byte < 0x20 || byte == 0x7F; }

// Returns whether a UTF-8 character U+0080 to U+009F begins there: some of them move the cursor of
// a terminal.
bool IsWideControl(std::string_view text, size_t at)
{
    return text[at] == '\xC2' && at + 1 < text.size() &&
           static_cast<unsigned char>(text[at + 1]) < 0xA0;
}

void AppendEscaped(std::string *result, unsigned char byte)
{
    constexpr char DIGITS[] = "0123456789ABCDEF";
    *result += {'\\', 'x', DIGITS[byte >> 4], DIGITS[byte & 0xF]};
}

void NoteSignal(int signal)
{
    int none = 0;
    sSignal.compare_exchange_strong(none, signal);
}

} // namespace

void SetProgramName(std::string name) { sProgramName = std::move(name); }

std::string Printable(std::string_view text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); i++) {
        if (IsWideControl(text, i)) {
            AppendEscaped(&result, text[i++]);
            AppendEscaped(&result, text[i]);
        } else if (IsControl(text[i])) {
            AppendEscaped(&result, text[i]);
        } else {
            result += text[i];
        }
    }
    return result;
}

std::string Quoted(std::string_view text)
{
    std::string result = "\"";
    for (const char c : Printable(text)) {
        // Escaped, so that it does not look like the end of the text.
        if (c == '"') {
            AppendEscaped(&result, c);
        } else {
            result += c;
        }
    }
    return result + '"';
}

std::string OneLine(std::string_view output)
{
    std::string line;
    while (!output.empty()) {
        const std::string_view part = output.substr(0, output.find('\n'));
        output.remove_prefix(std::min(part.size() + 1, output.size()));
        if (part.empty()) { continue; }
        if (!line.empty()) { line += "; "; }
        line += part;
    }
    return line;
}

void Say(std::string_view text)
try {
    const std::string line = sProgramName + ": " + Printable(text) + '\n';
    // A single write, so that lines of several scripts do not mix.
    (void)!write(STDERR_FILENO, line.data(), line.size());
} catch (const std::bad_alloc &) {
    constexpr std::string_view LINE = "pelagoHost: out of memory\n";
    (void)!write(STDERR_FILENO, LINE.data(), LINE.size());
}

void LogToSystem(std::string_view text)
{
    openlog("pelago-share", LOG_PID, LOG_DAEMON);
    syslog(LOG_INFO, "%s", Printable(text).c_str());
    closelog();
}

void Fail(const std::string &reason) { throw Failure(reason); }

void NoteSignals()
{
    struct sigaction action = {};
    action.sa_handler = NoteSignal; // without SA_RESTART, so that a wait ends
    for (const int signal : {SIGHUP, SIGINT, SIGTERM}) {
        struct sigaction present;
        // A signal that the caller has set to be ignored stays ignored, as exec() leaves it.
        if (sigaction(signal, nullptr, &present) == 0 && present.sa_handler != SIG_IGN) {
            sigaction(signal, &action, nullptr);
        }
    }
}

void CheckForSignal()
{
    const int signal = sSignal;
    if (signal != 0 && !sIsUninterrupted) { throw Interruption{signal}; }
}

Uninterrupted::Uninterrupted() : mBefore(sIsUninterrupted) { sIsUninterrupted = true; }
Uninterrupted::~Uninterrupted() { sIsUninterrupted = mBefore; }
