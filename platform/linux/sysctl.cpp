// sysctl.cpp -- facts about the machine, from the kernel's calls and files.
#include <sys/sysctl.h>

#include "hostFile.h"

#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>

using namespace pelago::platform;

namespace {

// A value as callers receive it: a text, or a number of 4 or 8 bytes.
struct Value {
    size_t numberSize; // 0 for a text
    uint64_t number;
    std::string text;
};
using Answer = std::optional<Value>; // nullopt when this host does not have the value

Answer NumberOf(size_t size, uint64_t number)
{
    return number == 0 ? Answer() : Value{size, number, std::string()};
}

Answer TextOf(std::string_view text)
{
    return text.empty() ? Answer() : Value{0, 0, std::string(text)};
}

template <typename Number> Number ParsedAs(std::string_view text)
{
    Number number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

Answer ReadActiveCpus()
{
    const long count = sysconf(_SC_NPROCESSORS_ONLN);
    return NumberOf(sizeof(int), count > 0 ? static_cast<uint64_t>(count) : 0);
}

Answer ReadMemorySize()
{
    struct sysinfo info;
    if (sysinfo(&info) != 0) { return Answer(); }
    return NumberOf(sizeof(uint64_t), uint64_t{info.totalram} * info.mem_unit);
}

Answer ReadMachine()
{
    struct utsname names;
    return uname(&names) == 0 ? TextOf(names.machine) : Answer();
}

std::string ProcessorText()
{
    std::string text;
    HostReadText("/proc/cpuinfo", &text);
    return text;
}

Answer ReadBrand() { return TextOf(HostField(ProcessorText(), "model name")); }

// Returns the highest rate that the kernel can set for any processor, in Hz; 0 where it sets none.
uint64_t ScaledHz()
{
    constexpr uint64_t HZ_PER_KHZ = 1000;
    uint64_t highest = 0;
    const long count = sysconf(_SC_NPROCESSORS_CONF);
    for (long i = 0; i < count; i++) {
        std::string text;
        HostReadText(
            ("/sys/devices/system/cpu/cpu" + std::to_string(i) + "/cpufreq/cpuinfo_max_freq")
                .c_str(),
            &text);
        highest = std::max(highest, ParsedAs<uint64_t>(text) * HZ_PER_KHZ);
    }
    return highest;
}

// Returns the highest rate that the kernel measured, in Hz; 0 when it measured none.
uint64_t MeasuredHz()
{
    constexpr double HZ_PER_MHZ = 1e6;
    const std::string text = ProcessorText();
    double highest = 0;
    HostForEachLine(text, [&](std::string_view line) {
        highest = std::max(highest, ParsedAs<double>(HostFieldOfLine(line, "cpu MHz")));
    });
    return static_cast<uint64_t>(std::llround(highest * HZ_PER_MHZ));
}

Answer ReadMaxFrequency()
{
    const uint64_t scaled = ScaledHz();
    return NumberOf(sizeof(uint64_t), scaled != 0 ? scaled : MeasuredHz());
}

// The texts of firmware tables end with a newline, those of device trees with a NUL.
Answer ReadModel()
{
    for (const char *path :
         {"/sys/class/dmi/id/product_name", "/sys/firmware/devicetree/base/model"}) {
        std::string text;
        HostReadText(path, &text);
        text.erase(
            std::find_if(text.begin(), text.end(), [](char c) { return c == '\0' || c == '\n'; }),
            text.end());
        if (!text.empty()) { return TextOf(text); }
    }
    return Answer();
}

struct Entry {
    const char *name;
    Answer (*read)();
};
constexpr Entry ENTRIES[] = {
    {"hw.activecpu", ReadActiveCpus}, {"hw.cpufrequency_max", ReadMaxFrequency},
    {"hw.machine", ReadMachine},      {"hw.memsize", ReadMemorySize},
    {"hw.model", ReadModel},          {"machdep.cpu.brand_string", ReadBrand},
};

// Copies the bytes that fit.  Returns 0, or ENOMEM when not all of them do.
int GiveBytes(const void *bytes, size_t count, void *value, size_t *size)
{
    const size_t room = size != nullptr ? *size : 0;
    const size_t given = value != nullptr ? std::min(count, room) : count;
    if (value != nullptr) { memcpy(value, bytes, given); }
    if (size != nullptr) { *size = given; }
    return given < count ? ENOMEM : 0;
}

int GiveNumber(const Value &answer, void *value, size_t *size)
{
    const auto narrow = static_cast<int32_t>(answer.number);
    const bool wantsNarrow = value != nullptr && size != nullptr && *size == sizeof narrow;
    if (answer.numberSize == sizeof narrow || wantsNarrow) {
        // macOS narrows to a signed number, even for a caller whose variable is unsigned.
        if (answer.number > INT32_MAX) { return ERANGE; }
        return GiveBytes(&narrow, sizeof narrow, value, size);
    }
    return GiveBytes(&answer.number, sizeof answer.number, value, size);
}

// Finds the entry and copies its value.  Returns 0 or an errno value.
int Query(const char *name, void *value, size_t *size, const void *newValue)
{
    const Entry *entry = std::find_if(std::begin(ENTRIES), std::end(ENTRIES),
                                      [&](const Entry &e) { return strcmp(e.name, name) == 0; });
    if (entry == std::end(ENTRIES)) { return ENOENT; }
    if (newValue != nullptr) { return EPERM; }
    try {
        const Answer answer = entry->read();
        if (!answer) { return ENOENT; }
        if (answer->numberSize != 0) { return GiveNumber(*answer, value, size); }
        return GiveBytes(answer->text.c_str(), answer->text.size() + 1, value, size);
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    }
}

// Returns the name of the entry that has this numeric name; nullptr, with an errno value in *error,
// when there is none.
const char *NameOf(const int *name, unsigned int count, int *error)
{
    constexpr unsigned int MIN_COUNT = 2;
    *error = EINVAL;
    if (count < MIN_COUNT || count > CTL_MAXNAME) { return nullptr; }
    *error = ENOENT;
    if (name[0] != CTL_HW || name[1] != HW_MACHINE) { return nullptr; }
    *error = ENOTDIR;
    return count == MIN_COUNT ? "hw.machine" : nullptr;
}

int Failed(int error)
{
    errno = error;
    return -1;
}

} // namespace

extern "C" int sysctlbyname(const char *name, void *value, size_t *size, void *newValue, size_t)
{
    const int before = errno;
    const int error = Query(name, value, size, newValue);
    return error != 0 ? Failed(error) : (errno = before, 0);
}

extern "C" int sysctl(int *name, unsigned int count, void *value, size_t *size, void *newValue,
                      size_t newSize)
{
    int error = 0;
    const char *text = NameOf(name, count, &error);
    return text == nullptr ? Failed(error) : sysctlbyname(text, value, size, newValue, newSize);
}
