// The functions of lib/misc and lib/unicode without memory.
#include "noMemory.h"

#include "codeset.h"
#include "dynbuf.h"
#include "err.h"
#include "escape.h"
#include "hostinfo.h"
#include "location.h"
#include "unicode.h"
#include "util.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string_view>

#include <unicode/putil.h>

namespace {

// ---- Safe allocation

// Returns whether the allocator returns a block; the caller owns the block and can write to it.
bool Allocates(size_t size, const std::function<void *()> &allocate)
{
    void *block = Scarcely(allocate);
    if (block == nullptr) { return false; }
    memset(block, 'x', size);
    free(block);
    return true;
}

RUNS_OUT(Util_SafeMalloc, PANICS)
{
    return Allocates(9, [] { return Util_SafeMalloc(9); });
}

RUNS_OUT(Util_SafeMallocAt, PANICS_AT)
{
    return Allocates(9, [] { return Util_SafeMallocAt(9, UTIL_NO_BUG, "lib/x", 7); });
}

RUNS_OUT(Util_SafeRealloc, PANICS)
{
    void *block = strdup("text");
    return Gives("text", Scarcely([&] { return block = Util_SafeRealloc(block, 500); }));
}

RUNS_OUT(Util_SafeReallocAt, PANICS_AT)
{
    void *block = strdup("text");
    return Gives("text", Scarcely([&] {
                     return block = Util_SafeReallocAt(block, 500, UTIL_NO_BUG, "lib/x", 7);
                 }));
}

RUNS_OUT(Util_SafeCalloc, PANICS)
{
    return Allocates(12, [] { return Util_SafeCalloc(3, 4); });
}

RUNS_OUT(Util_SafeCallocAt, PANICS_AT)
{
    return Allocates(12, [] { return Util_SafeCallocAt(3, 4, UTIL_NO_BUG, "lib/x", 7); });
}

RUNS_OUT(Util_SafeStrdup, PANICS)
{
    return Gives("text", Scarcely([] { return Util_SafeStrdup("text"); }));
}

RUNS_OUT(Util_SafeStrdupAt, PANICS_AT)
{
    return Gives("text",
                 Scarcely([] { return Util_SafeStrdupAt("text", UTIL_NO_BUG, "lib/x", 7); }));
}

RUNS_OUT(Util_SafeStrndup, PANICS)
{
    return Gives("te", Scarcely([] { return Util_SafeStrndup("text", 2); }));
}

RUNS_OUT(Util_SafeStrndupAt, PANICS_AT)
{
    return Gives("te",
                 Scarcely([] { return Util_SafeStrndupAt("text", 2, UTIL_NO_BUG, "lib/x", 7); }));
}

RUNS_OUT(Util_Memdup, FAILS)
{
    return Gives("text", Scarcely([] { return Util_Memdup("text", 5); }));
}

NEEDS_NO_MEMORY(Util_Memcpy)
{
    char to[5];
    return Scarcely([&] { return Util_Memcpy(to, "text", 5); }) == to && to[3] == 't';
}

NEEDS_NO_MEMORY(Util_Free)
{
    void *block = malloc(1);
    Scarcely([&] { Util_Free(block); });
    return true;
}

NEEDS_NO_MEMORY(Util_CountMemDiff)
{
    size_t count = 0;
    return Scarcely([&] { return Util_CountMemDiff("abc", "abd", 3, &count); }) && count == 1;
}

NEEDS_NO_MEMORY(Util_MemDiffers)
{
    return Scarcely([] { return Util_MemDiffers("abc", "abd", 3); });
}

NEEDS_NO_MEMORY(Util_CountStrDiff)
{
    size_t count = 0;
    return Scarcely([&] { return Util_CountStrDiff("abc", "abd", &count); }) && count == 1;
}

NEEDS_NO_MEMORY(Util_StrDiffers)
{
    return Scarcely([] { return Util_StrDiffers("abc", "abd"); });
}

// ---- Buffers

const std::string WORD(DYNBUF_FIRST_ALLOCATION, 'w'); // fills a buffer's first block

// A full buffer, and the state that it must keep.
class FullBuffer {
public:
    FullBuffer()
    {
        DynBuf_Init(&mBuf);
        EXPECT_TRUE(DynBuf_Append(&mBuf, WORD.data(), WORD.size()));
        EXPECT_EQ(mBuf.allocated, mBuf.size);
        mWas = mBuf;
    }
    FullBuffer(const FullBuffer &) = delete;
    FullBuffer &operator=(const FullBuffer &) = delete;
    ~FullBuffer() { DynBuf_Destroy(&mBuf); }
    operator DynBuf *() { return &mBuf; }
    DynBuf *operator->() { return &mBuf; }

    // After a failure the buffer must be unchanged; its contents must stay in any case.
    bool Settle(bool succeeded)
    {
        if (!succeeded) {
            EXPECT_EQ(mBuf.data, mWas.data);
            EXPECT_EQ(mBuf.size, mWas.size);
            EXPECT_EQ(mBuf.allocated, mWas.allocated);
        }
        EXPECT_EQ(std::string(mBuf.data, mWas.size), WORD);
        return succeeded;
    }

private:
    DynBuf mBuf, mWas;
};

RUNS_OUT(DynBuf_Enlarge, FAILS)
{
    FullBuffer buf;
    return buf.Settle(Scarcely([&] { return DynBuf_Enlarge(buf, 1); }));
}

RUNS_OUT_WHEN(DynBuf_Enlarge, Empty, FAILS)
{
    DynBuf buf;
    DynBuf_Init(&buf);
    const bool succeeded = Scarcely([&] { return DynBuf_Enlarge(&buf, 1); });
    EXPECT_EQ(buf.allocated, succeeded ? DYNBUF_FIRST_ALLOCATION : 0u);
    EXPECT_EQ(buf.data != nullptr, succeeded);
    DynBuf_Destroy(&buf);
    return succeeded;
}

RUNS_OUT(DynBuf_Append, FAILS)
{
    FullBuffer buf;
    return buf.Settle(Scarcely([&] { return DynBuf_Append(buf, "a", 1); }));
}

RUNS_OUT(DynBuf_Trim, FAILS)
{
    FullBuffer buf;
    buf->size--;
    const bool succeeded = Scarcely([&] { return DynBuf_Trim(buf); });
    EXPECT_EQ(buf->allocated, DYNBUF_FIRST_ALLOCATION - succeeded);
    buf->size++;
    if (!succeeded) { return buf.Settle(false); }
    EXPECT_EQ(std::string(buf->data, buf->allocated), WORD.substr(0, buf->allocated));
    return true;
}

RUNS_OUT(DynBuf_Copy, FAILS)
{
    FullBuffer buf;
    DynBuf copy;
    memset(&copy, 0xee, sizeof copy); // the call must not read the old contents
    const bool succeeded = Scarcely([&] { return DynBuf_Copy(buf, &copy); });
    EXPECT_EQ(copy.data != nullptr, succeeded);
    EXPECT_EQ(copy.size, succeeded ? DYNBUF_FIRST_ALLOCATION : 0u);
    EXPECT_EQ(copy.allocated, copy.size);
    EXPECT_EQ(std::string_view(copy.data, copy.size), WORD.substr(0, copy.size));
    DynBuf_Destroy(&copy);
    buf.Settle(false); // unchanged, whether or not the copy succeeded
    return succeeded;
}

RUNS_OUT(DynBuf_DetachString, Panics("MEM_ALLOC lib/public/dynbuf:145\n"))
{
    FullBuffer buf;
    return Gives(WORD, Scarcely([&] { return DynBuf_DetachString(buf); }));
}

RUNS_OUT(DynBuf_SafeInternalEnlarge, PANICS_AT)
{
    FullBuffer buf;
    EXPECT_EQ(Scarcely([&] { return DynBuf_SafeInternalEnlarge(buf, 1, "lib/x", 7); }), buf->data);
    return buf.Settle(true);
}

RUNS_OUT(DynBuf_SafeInternalAppend, PANICS_AT)
{
    FullBuffer buf;
    Scarcely([&] { DynBuf_SafeInternalAppend(buf, "a", 1, "lib/x", 7); });
    return buf.Settle(true);
}

NEEDS_NO_MEMORY(DynBuf_Init)
{
    DynBuf buf;
    Scarcely([&] { DynBuf_Init(&buf); });
    return buf.data == nullptr;
}

NEEDS_NO_MEMORY(DynBuf_InitWithMemory)
{
    DynBuf buf;
    void *block = malloc(8);
    Scarcely([&] { DynBuf_InitWithMemory(&buf, 8, block); });
    const bool isOwned = buf.data == block;
    DynBuf_Destroy(&buf);
    return isOwned;
}

NEEDS_NO_MEMORY(DynBuf_InitWithString)
{
    DynBuf buf;
    char *block = strdup("text");
    Scarcely([&] { DynBuf_InitWithString(&buf, block); });
    const bool isOwned = buf.data == block && buf.size == 4;
    DynBuf_Destroy(&buf);
    return isOwned;
}

NEEDS_NO_MEMORY(DynBuf_Destroy)
{
    FullBuffer buf;
    Scarcely([&] { DynBuf_Destroy(buf); });
    return buf->data == nullptr;
}

NEEDS_NO_MEMORY(DynBuf_Attach)
{
    FullBuffer buf;
    char *block = strdup("text");
    Scarcely([&] { DynBuf_Attach(buf, 4, block); });
    return buf->data == block;
}

NEEDS_NO_MEMORY(DynBuf_Detach)
{
    FullBuffer buf;
    void *block = Scarcely([&] { return DynBuf_Detach(buf); });
    free(block);
    return block != nullptr && buf->data == nullptr;
}

// ---- Error texts

RUNS_OUT(Err_NumberToText, PANICS)
{
    const std::string text = Scarcely([] { return Err_NumberToText(ENOENT); });
    Err_Shutdown();
    return text == strerror(ENOENT);
}

NEEDS_NO_MEMORY_WHEN(Err_NumberToText, AgainAllocatesNothing)
{
    const char *text = Err_NumberToText(ENOENT);
    const bool isSame = Scarcely([] { return Err_NumberToText(ENOENT); }) == text;
    Err_Shutdown();
    return isSame;
}

RUNS_OUT(Err_CurrentText, PANICS)
{
    errno = ENOENT;
    const std::string text = Scarcely([] { return Err_CurrentText(); });
    Err_Shutdown();
    return text == strerror(ENOENT);
}

// The call makes the cache that it searches.
RUNS_OUT(Err_TextToNumber, PANICS)
{
    const int number = Scarcely([] { return Err_TextToNumber("text"); });
    Err_Shutdown();
    return number == -1;
}

NEEDS_NO_MEMORY(Err_Shutdown)
{
    Err_NumberToText(ENOENT);
    Scarcely([] { Err_Shutdown(); });
    return true;
}

// ---- Escaping

struct PercentOnly {
    int in[256] = {};
    PercentOnly() { in[static_cast<size_t>('%')] = 1; }
};
const PercentOnly PERCENT;

NEEDS_NO_MEMORY(Escape_FillSet)
{
    return Scarcely([] {
        int set[256];
        Escape_FillSet(set, "%");
        return set[static_cast<int>('%')] == 1 && set[static_cast<int>('a')] == 0;
    });
}

RUNS_OUT(Escape_DoString, FAILS)
{
    return Builds(Times(500, "<=25"), [](size_t *sizeOut) {
        return Escape_DoString("<=", PERCENT.in, Times(500, "%").data(), 500, sizeOut);
    });
}

RUNS_OUT(Escape_Do, FAILS)
{
    return Builds(Times(500, "a%25"), [](size_t *sizeOut) {
        return Escape_Do('%', PERCENT.in, Times(500, "a%").data(), 1000, sizeOut);
    });
}

RUNS_OUT(Escape_Undo, FAILS)
{
    return Builds(Times(500, "a%"), [](size_t *sizeOut) {
        return Escape_Undo('%', Times(500, "a%25").data(), 2000, sizeOut);
    });
}

RUNS_OUT(Escape_UndoFixBuf, FAILS)
{
    char block[] = "......";
    const bool succeeded =
        Scarcely([&] { return Escape_UndoFixBuf('%', "a%25b", 5, block, sizeof block); });
    EXPECT_STREQ(block, succeeded ? "a%b" : "......");
    return succeeded;
}

RUNS_OUT(Escape_AnsiToUnix, FAILS)
{
    return Builds(Times(500, "a\n"), [](size_t *sizeOut) {
        return Escape_AnsiToUnix(Times(500, "a\r\n").data(), 1500, sizeOut);
    });
}

RUNS_OUT(Escape_Sh, FAILS)
{
    return Builds("'" + Times(500, "'\"'\"'") + "'",
                  [](size_t *sizeOut) { return Escape_Sh(Times(500, "'").data(), 500, sizeOut); });
}

RUNS_OUT(Escape_BRE, FAILS)
{
    return Builds(Times(500, "\\."),
                  [](size_t *sizeOut) { return Escape_BRE(Times(500, ".").data(), 500, sizeOut); });
}

RUNS_OUT(Escape_Comma, FAILS)
{
    const std::string in = Times(500, ",");
    return Gives(Times(500, "\\,"), Scarcely([&] { return Escape_Comma(in.c_str()); }));
}

RUNS_OUT(Escape_Unescape, FAILS)
{
    const std::string in = Times(500, "\\,");
    return Gives(Times(500, ","), Scarcely([&] { return Escape_Unescape('\\', in.c_str()); }));
}

NEEDS_NO_MEMORY(Escape_Strchr)
{
    const char in[] = "a\\,b,c";
    return Scarcely([&] { return Escape_Strchr('\\', in, ','); }) == in + 4;
}

NEEDS_NO_MEMORY(Escape_UnescapeCString)
{
    char in[] = "\\101\\n";
    Scarcely([&] { return Escape_UnescapeCString(in); });
    return strcmp(in, "A\n") == 0;
}

// ---- The host, and places on it

std::string OwnPath() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

std::string Above(std::string path, int levels)
{
    for (; levels > 0; levels--) {
        path.erase(path.rfind('/'));
    }
    return path;
}

// A root with ICU's data file in the product's place.
class Root {
public:
    Root()
    {
        std::filesystem::create_directories(Folder());
        std::ofstream(File()) << "data";
        EXPECT_EQ(setenv("TARVEX_LOCATION_ROOT_FULLPATH", mFolder.Path().c_str(), 1), 0);
    }
    std::string Folder() const { return mFolder.Path() + "/Contents/Library/icu"; }
    std::string File() const { return Folder() + "/icudt44l.dat"; }

private:
    TemporaryFolder mFolder;
};

const Ending NO_ROOT = Says("LocationGetRoot: Unable to copy the environment variable.\n");

RUNS_OUT(Hostinfo_GetModulePath, PANICS)
{
    const std::string path = Take(Hostinfo_GetModulePath(1));
    return Gives(path, Scarcely([] { return Hostinfo_GetModulePath(1); }));
}

RUNS_OUT(Location_Get, NO_ROOT, FAILS)
{
    const Root root;
    return Gives(root.Folder(), Scarcely([] { return Location_Get("icuDir"); }));
}

RUNS_OUT_WHEN(Location_Get, FromItsOwnPath, PANICS, PANICS, Unconverted(OwnPath()), FAILS)
{
    Unicode_GetCurrentEncoding(); // both are cached once they have been looked up
    UnicodeIANALookup("UTF-8");
    if (!sAttempt.isSecond) { Location_Init("shareTool"); }
    const bool succeeded =
        Gives(Above(OwnPath(), 4), Scarcely([] { return Location_Get("rootDir"); }));
    Unicode_Shutdown();
    return succeeded;
}

NEEDS_NO_MEMORY(Location_Init)
{
    Scarcely([] { Location_Init("shareTool"); });
    return true;
}

NEEDS_NO_MEMORY(Location_GetRelative)
{
    return *Scarcely([] { return Location_GetRelative("rootDir"); }) == '\0';
}

NEEDS_NO_MEMORY(Location_GetLastUsedFile)
{
    return Scarcely([] { return Location_GetLastUsedFile(); }) != nullptr;
}

NEEDS_NO_MEMORY(Location_GetDefaultRoot)
{
    return Scarcely([] { return Location_GetDefaultRoot(); }) != nullptr;
}

// ---- Text

// Returns whether ICU is in use after the initialisation, which without memory goes on without ICU.
bool UsesIcu(const std::function<void(const Root &root)> &init)
{
    const Root root;
    Scarcely([&] { init(root); });
    const bool isUsed = CodeSet_IsIcuInUse() && u_getDataDirectory() == root.File();
    u_setDataDirectory(nullptr); // releases ICU's copy
    return isUsed;
}

RUNS_OUT(CodeSet_Init, FAILS)
{
    return UsesIcu([](const Root &root) { EXPECT_TRUE(CodeSet_Init(root.Folder().c_str())); });
}

RUNS_OUT_WHEN(CodeSet_Init, WhereTheProductHasIt, NO_ROOT, FAILS)
{
    return UsesIcu([](const Root &) { EXPECT_TRUE(CodeSet_Init(nullptr)); });
}

NEEDS_NO_MEMORY(CodeSet_DontUseIcu)
{
    Scarcely([] { CodeSet_DontUseIcu(); });
    return !CodeSet_IsIcuInUse();
}

// The first call decides, so ICU stays unused when there is memory again.
RUNS_OUT(Unicode_Init, NO_ROOT, FAILS)
{
    return UsesIcu([](const Root &) { Unicode_Init(); }) || sAttempt.isSecond;
}

RUNS_OUT(Unicode_InitEx, FAILS)
{
    const auto init = [](const Root &root) {
        Unicode_InitEx(0, nullptr, nullptr, root.Folder().c_str());
    };
    return UsesIcu(init) || sAttempt.isSecond;
}

} // namespace
