/*
 * processMark.h -- identifies one run of one process by its process id, its start time and the
 * boot.  The kernel reuses process ids, but never the three together.
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

    // Returns the mark of a running process; nullopt when there is none, when it has ended and was
    // not reaped yet, and when /proc cannot be read.  May throw std::bad_alloc.
    static std::optional<ProcessMark> Of(pid_t pid);
    // Parses what Text() wrote; nullopt for any other text.
    static std::optional<ProcessMark> FromText(std::string_view text);
    // Returns "PID START BOOT".
    std::string Text() const;
    // Returns whether the process runs.  Also true when /proc cannot be read: what belongs to a
    // process that may be running must not be touched.  May throw std::bad_alloc.
    bool IsRunning() const;
    // Returns whether this process's user runs another process of the same name; also true when
    // /proc cannot be read.  May throw std::bad_alloc.
    static bool AnotherOfOurNameRuns();
    bool operator==(const ProcessMark &other) const = default;
};

} // namespace pelago::platform

#endif /* PELAGO_LINUX_PROCESSMARK_H */
