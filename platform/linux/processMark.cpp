// processMark.cpp -- reads /proc for when a process started.
#include "processMark.h"

#include "hostFile.h"

#include <algorithm>
#include <charconv>
#include <fcntl.h>

namespace {

constexpr size_t MAX_FILE_SIZE = 4096; // a stat line and a boot id are far shorter
// In /proc/PID/stat, counted after the name: the state is field 0, the start time field 19.
constexpr int START_FIELD = 19;

std::string ReadSmallFile(const char *path)
{
    const OwnedFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (!fd.IsOpen()) { return std::string(); }
    std::string bytes(MAX_FILE_SIZE, '\0');
    const ssize_t got = HostReadAll(fd.Get(), bytes.data(), bytes.size());
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
}

// Takes the next word of the text, up to a blank or a newline; empty at the end.
std::string_view TakeWord(std::string_view *text)
{
    const size_t begin = text->find_first_not_of(" \n");
    if (begin == std::string_view::npos) { return *text = std::string_view(); }
    const size_t end = std::min(text->find_first_of(" \n", begin), text->size());
    const std::string_view word = text->substr(begin, end - begin);
    text->remove_prefix(end);
    return word;
}

template <typename Number> bool ReadNumber(std::string_view word, Number *number)
{
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), *number);
    return error == std::errc() && end == word.data() + word.size();
}

std::string BootId()
{
    const std::string bytes = ReadSmallFile("/proc/sys/kernel/random/boot_id");
    std::string_view text = bytes;
    return std::string(TakeWord(&text));
}

} // namespace

std::optional<ProcessMark> ProcessMark::Of(pid_t pid)
{
    const std::string stat = ReadSmallFile(("/proc/" + std::to_string(pid) + "/stat").c_str());
    // The name stands in parentheses and may hold anything, parentheses as well.
    const size_t nameEnd = stat.rfind(')');
    if (nameEnd == std::string::npos) { return std::nullopt; }
    std::string_view fields = std::string_view(stat).substr(nameEnd + 1);
    const std::string_view state = TakeWord(&fields);
    if (state.empty() || state == "Z" || state == "X") { return std::nullopt; }
    for (int field = 1; field < START_FIELD; field++) {
        TakeWord(&fields);
    }
    ProcessMark mark{pid, 0, BootId()};
    if (!ReadNumber(TakeWord(&fields), &mark.start) || mark.boot.empty()) { return std::nullopt; }
    return mark;
}

std::optional<ProcessMark> ProcessMark::FromText(std::string_view text)
{
    ProcessMark mark;
    if (!ReadNumber(TakeWord(&text), &mark.pid) || !ReadNumber(TakeWord(&text), &mark.start)) {
        return std::nullopt;
    }
    mark.boot = TakeWord(&text);
    if (mark.pid <= 0 || mark.boot.empty() || !TakeWord(&text).empty()) { return std::nullopt; }
    return mark;
}

std::string ProcessMark::Text() const
{
    return std::to_string(pid) + ' ' + std::to_string(start) + ' ' + boot;
}

bool ProcessMark::IsRunning() const { return Of(pid) == *this; }
