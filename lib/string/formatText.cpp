// formatText.cpp -- characters and strings.
#include "diagnostics.h"
#include "formatField.h"
#include "scoped.h"
#include "utf.h"
#include "util.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>

namespace pelago {

namespace {

constexpr char MODULE_PATH[] = "lib/string/bsd_vsnprintf"; // the engine's, in reports
constexpr int WCSCONV_LINE = 414; // the number of the check of the converter's result

static_assert(sizeof(wchar_t) == sizeof(uint32_t));

// Returns a wide string in UTF-8 as a new NUL-terminated block: its whole characters that fit
// precision bytes, or all of it for -1; nullptr when memory runs out.  The converter is lenient
// with units that are no characters.
char *bsd_wcsconv(const wchar_t *wide, int64_t precision)
{
    const bool limited = precision >= 0;
    const size_t limit = limited ? static_cast<size_t>(precision) : SIZE_MAX;
    // Each character takes at least a byte, so a string that is limited need not be terminated.
    const size_t length = limited ? wcsnlen(wide, limit) : wcslen(wide);
    // Four bytes are enough for any character, so the target is full only at the limit.
    const size_t capacity = std::min(4 * length, limit);
    char *text = static_cast<char *>(malloc(capacity + 4));
    if (text == nullptr) { return nullptr; }
    const uint32_t *source = reinterpret_cast<const uint32_t *>(wide);
    uint8_t *target = reinterpret_cast<uint8_t *>(text);
    switch (Utf32ToUtf8(&source, source + length, &target, target + capacity, /* lenient */ true)) {
    case UtfResult::Done:
    case UtfResult::SourceCut:
    case UtfResult::TargetFull:
    case UtfResult::Illegal: break;
    default: Panic(UTIL_NOT_IMPLEMENTED_REPORT, MODULE_PATH, WCSCONV_LINE);
    }
    *target = '\0';
    return text;
}

} // namespace

bool FormatCharacter(const FormatDirective &directive, FormatCall *call)
{
    const int value = call->arguments.Take<int>(directive.index);
    char text[MB_LEN_MAX] = {static_cast<char>(value)};
    if (!(directive.flags & FORMAT_LONG)) { return FormatField(directive, &call->output, text, 1); }
    mbstate_t state = {};
    const size_t length = wcrtomb(text, static_cast<wchar_t>(value), &state);
    return length != static_cast<size_t>(-1) && FormatField(directive, &call->output, text, length);
}

bool FormatString(const FormatDirective &directive, FormatCall *call)
{
    const void *value = call->arguments.Take<void *>(directive.index);
    const char *text = value == nullptr ? "(null)" : static_cast<const char *>(value);
    ScopedFree<char> converted;
    if ((directive.flags & FORMAT_LONG) && value != nullptr) {
        converted.reset(bsd_wcsconv(static_cast<const wchar_t *>(value), directive.precision));
        if (!converted) { return false; }
        text = converted.get();
    }
    const size_t length = directive.precision < 0
                              ? strlen(text)
                              : strnlen(text, static_cast<size_t>(directive.precision));
    return directive.width == 0 ? call->output.Write(text, length)
                                : FormatField(directive, &call->output, text, length);
}

} // namespace pelago
