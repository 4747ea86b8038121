/*
 * processMark.h -- names one run of one process: its number, when it started, and in which boot.
 * The kernel uses process numbers again; the three together it never does.
 */
#ifndef PELAGO_LINUX_PROCESSMARK_H
#define PELAGO_LINUX_PROCESSMARK_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace pelago::platform {

struct ProcessMark {
    pid_t pid = 0;
    uint64_t start = 0; // clock ticks from the boot to the start of the process
    std::string boot;   // the kernel's id of the boot, without a newline

    // The mark of a process that runs; nothing when there is none, or only its unread status.
    // May throw std::bad_alloc.
    static std::optional<ProcessMark> Of(pid_t pid);
    // Reads what Text() wrote; nothing for any other text.
    static std::optional<ProcessMark> FromText(std::string_view text);
    // "PID START BOOT"
    std::string Text() const;
    // Also true when the kernel cannot be asked: what belongs to a process that may run is left
    // alone.
    bool IsRunning() const;
    // Whether the user of this process runs another process of the same name; true, too, when the
    // kernel does not say.  May throw std::bad_alloc.
    static bool AnotherOfOurNameRuns();
    bool operator==(const ProcessMark &other) const = default;
};

} // namespace pelago::platform

#endif /* PELAGO_LINUX_PROCESSMARK_H */
