// posixInt.h -- how a call of the C library is made with text in UTF-8.
#ifndef PELAGO_MISC_POSIXINT_H
#define PELAGO_MISC_POSIXINT_H

#include "scoped.h"
#include "unicode.h"

#include <cerrno>
#include <type_traits>

namespace pelago {

// One text argument in the host's encoding, for the duration of one call; NULL stays NULL.  Its
// constructor and destructor leave errno unchanged.
class HostText {
public:
    explicit HostText(const char *utf8)
        : mBytes(ToHost(utf8)), mIsUnspellable(utf8 != nullptr && !mBytes)
    {}
    operator const char *() const { return mBytes.get(); }
    char *Bytes() const { return mBytes.get(); }          // for a call that writes to its argument
    char *Release() { return mBytes.release(); }          // the caller frees it
    bool IsUnspellable() const { return mIsUnspellable; } // the host's encoding cannot spell it

private:
    static char *ToHost(const char *utf8)
    {
        ErrnoSaver keep;
        return Unicode_GetAllocBytes(utf8, STRING_ENCODING_DEFAULT);
    }

    ScopedFree<char> mBytes;
    bool mIsUnspellable;
};

struct FreeListQuietly {
    void operator()(char **list) const noexcept
    {
        ErrnoSaver keep;
        for (char **entry = list; *entry != nullptr; entry++) {
            free(*entry);
        }
        free(list);
    }
};

// A NULL-terminated list of malloc'ed strings that is ours until release().
using ScopedTextList = std::unique_ptr<char *, FreeListQuietly>;

// Does for a NULL-terminated list what HostText does for one text.
class HostTextList {
public:
    explicit HostTextList(char *const *utf8)
        : mList(ToHost(utf8)), mIsUnspellable(utf8 != nullptr && !mList)
    {}
    operator char * const *() const { return mList.get(); }
    bool IsUnspellable() const { return mIsUnspellable; }

private:
    static char **ToHost(char *const *utf8)
    {
        if (utf8 == nullptr) { return nullptr; }
        ErrnoSaver keep;
        return Unicode_GetAllocList(const_cast<char **>(utf8), -1, STRING_ENCODING_DEFAULT);
    }

    ScopedTextList mList;
    bool mIsUnspellable;
};

inline bool PosixIsUnspellable(const HostText &text) { return text.IsUnspellable(); }
inline bool PosixIsUnspellable(const HostTextList &list) { return list.IsUnspellable(); }
template <typename Argument> bool PosixIsUnspellable(const Argument &) { return false; }

// Makes the C library's call and returns its result, with errno as the call left it.  If the host's
// encoding cannot represent a text, it fails with ERANGE, and no call is made.  A caller with
// several texts names each HostText as a local, so that they are converted in a fixed order.
template <typename Call, typename... Arguments> auto PosixCall(Call call, Arguments &&...arguments)
{
    using Result = decltype(call(arguments...));
    if ((PosixIsUnspellable(arguments) || ...)) {
        errno = ERANGE;
        if constexpr (std::is_pointer_v<Result>) {
            return Result(nullptr);
        } else {
            return Result(-1);
        }
    }
    return call(arguments...);
}

// Returns the C library's bytes as a new string; NULL for NULL.  Leaves errno unchanged.
inline Unicode PosixFromHost(const char *bytes)
{
    ErrnoSaver keep;
    return Unicode_AllocWithLength(bytes, -1, STRING_ENCODING_DEFAULT);
}

// Returns the same for bytes that are valid in the host's encoding, else NULL with errno EILSEQ;
// PosixFromHost() ends the process for such bytes or, with ICU, alters the text.
inline Unicode PosixTryFromHost(const char *bytes)
{
    return Unicode_AllocIfValid(bytes, -1, STRING_ENCODING_DEFAULT);
}

// The conversion of bytes that a call returns: one of the two functions above.
using PosixConversion = Unicode (*)(const char *bytes);

} // namespace pelago

#endif // PELAGO_MISC_POSIXINT_H
