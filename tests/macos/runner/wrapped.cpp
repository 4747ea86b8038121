// wrapped.cpp
#include "wrapped.h"

#include "refuse.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char SELF[] = "/proc/self/exe";
constexpr char MARK[16] = "Mach-O follows";

// The last bytes of an executable that holds a program.
struct Trailer {
    char mark[sizeof MARK];
    uint64_t size; // of the program before it
};

using File = std::unique_ptr<FILE, int (*)(FILE *)>;

File Open(const char *path, const char *mode)
{
    File file(fopen(path, mode), fclose);
    if (file == nullptr) { Refuse("%s: %s", path, strerror(errno)); }
    return file;
}

std::vector<std::byte> Read(FILE *file, const char *path, long start, long end)
{
    std::vector<std::byte> bytes(static_cast<size_t>(end - start));
    if (fseek(file, start, SEEK_SET) != 0 ||
        fread(bytes.data(), 1, bytes.size(), file) != bytes.size()) {
        Refuse("%s cannot be read", path);
    }
    return bytes;
}

long Size(FILE *file, const char *path)
{
    const long size = fseek(file, 0, SEEK_END) == 0 ? ftell(file) : -1;
    if (size < 0) { Refuse("%s cannot be measured", path); }
    return size;
}

char sStarted[PATH_MAX];

} // namespace

std::vector<std::byte> ReadProgram(const char *path)
{
    const File file = Open(path, "rbe");
    return Read(file.get(), path, 0, Size(file.get(), path));
}

std::optional<std::vector<std::byte>> WrappedProgram()
{
    const File file = Open(SELF, "rbe");
    const long end = Size(file.get(), SELF) - static_cast<long>(sizeof(Trailer));
    Trailer trailer;
    memcpy(&trailer, Read(file.get(), SELF, end, end + static_cast<long>(sizeof trailer)).data(),
           sizeof trailer);
    if (memcmp(trailer.mark, MARK, sizeof MARK) != 0) { return std::nullopt; }
    return Read(file.get(), SELF, end - static_cast<long>(trailer.size), end);
}

void WrapProgram(const char *program, const char *out)
{
    const auto runner = ReadProgram(SELF), content = ReadProgram(program);
    Trailer trailer{};
    memcpy(trailer.mark, MARK, sizeof MARK);
    trailer.size = content.size();
    File file = Open(out, "wbe");
    if (fwrite(runner.data(), 1, runner.size(), file.get()) != runner.size() ||
        fwrite(content.data(), 1, content.size(), file.get()) != content.size() ||
        fwrite(&trailer, 1, sizeof trailer, file.get()) != sizeof trailer ||
        fflush(file.get()) != 0 || fchmod(fileno(file.get()), 0755) != 0) {
        Refuse("%s cannot be written", out);
    }
}

void SetStartedProgram(const char *path)
{
    char folder[PATH_MAX] = "";
    const bool isAbsolute = path[0] == '/';
    if (!isAbsolute && getcwd(folder, sizeof folder) == nullptr) {
        Refuse("there is no current folder");
    }
    const int size =
        snprintf(sStarted, sizeof sStarted, "%s%s%s", folder, isAbsolute ? "" : "/", path);
    if (static_cast<size_t>(size) >= sizeof sStarted) { Refuse("%s is too long", path); }
}

const char *StartedProgram() { return sStarted[0] == '\0' ? nullptr : sStarted; }
