// A program in C++ that defines names that the library uses inside.
#include "expect.h"

#include <pelago/hostinfo.h>
#include <pelago/posix.h>
#include <pelago/str.h>
#include <pelago/util.h>

#include <string>

class PropertyList {
public:
    PropertyList() {}
    ~PropertyList() { x = 0; }
    int x = 42;
};

struct ErrnoSaver {
    ErrnoSaver() : saved(7) {}
    ~ErrnoSaver() {}
    long before[20] = {}, saved;
};

struct FileSignature {
    FileSignature() : size("own") {}
    bool operator==(const FileSignature &) const { return false; }
    std::string size;
};

struct HostText {
    explicit HostText(const char *text) : bytes(text) {}
    ~HostText() {}
    char padding[300] = {};
    std::string bytes;
};

inline bool ReadWholeFile(const char *, std::string *) { return false; }
inline int Utf8ToUtf16(const char *) { return 16; }
inline const char *HostReadRest(int) { return "own"; }
namespace pelago {
inline int Converted(const char *) { return 3; }
} // namespace pelago

int main()
{
    PropertyList list;
    ErrnoSaver saver;
    FileSignature signature, other;
    HostText text("own");
    free(Hostinfo_GetOSName());
    const void *none = Util_ReadPlistDictionary("/etc/hostname");
    Unicode root = Posix_RealPath("/.");
    char *formatted = Str_SafeAsprintf(nullptr, "%s %.1f", root, 0.5);
    EXPECT(none == nullptr);
    EXPECT_TEXT(formatted, "/ 0.5");
    free(formatted);
    free(root);
    EXPECT(list.x == 42 && saver.saved == 7 && !(signature == other));
    EXPECT(signature.size == "own" && text.bytes == "own");
    std::string content;
    EXPECT(!ReadWholeFile("/etc/passwd", &content) && Utf8ToUtf16("a") == 16);
    EXPECT_TEXT(HostReadRest(0), "own");
    EXPECT(pelago::Converted("") == 3);
    puts("ok");
}
