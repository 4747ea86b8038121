// Appends 16 bytes repeatedly, and compares DynBuf with its peers.
#include "dynbuf.h"
#include "workloads.h"

#include <fmt/format.h>
#include <glib.h>
#include <string>
#include <vector>

namespace {

constexpr char PIECE[] = "0123456789abcdef";
constexpr size_t PIECE_SIZE = 16;

// Grows a block as DynBuf does, with realloc() and memcpy() alone.
size_t BareGrowth(size_t count)
{
    char *data = nullptr;
    size_t size = 0, allocated = 0;
    for (; count > 0; count--) {
        if (size + PIECE_SIZE > allocated) {
            allocated = allocated == 0       ? 128
                        : allocated < 262144 ? 2 * allocated
                                             : allocated + 262144;
            data = static_cast<char *>(realloc(data, allocated));
        }
        memcpy(data + size, Opaque(PIECE), PIECE_SIZE);
        size += PIECE_SIZE;
    }
    free(data);
    return size;
}

size_t OurBuffer(size_t count)
{
    DynBuf buf;
    DynBuf_Init(&buf);
    for (; count > 0; count--) {
        DynBuf_Append(&buf, Opaque(PIECE), PIECE_SIZE);
    }
    const size_t size = buf.size;
    DynBuf_Destroy(&buf);
    return size;
}

size_t StdString(size_t count)
{
    std::string text;
    for (; count > 0; count--) {
        text.append(Opaque(PIECE), PIECE_SIZE);
    }
    return text.size();
}

size_t StdVector(size_t count)
{
    std::vector<char> bytes;
    for (; count > 0; count--) {
        const char *piece = Opaque(PIECE);
        bytes.insert(bytes.end(), piece, piece + PIECE_SIZE);
    }
    return bytes.size();
}

size_t FmtBuffer(size_t count)
{
    fmt::memory_buffer buffer;
    for (; count > 0; count--) {
        const char *piece = Opaque(PIECE);
        buffer.append(piece, piece + PIECE_SIZE);
    }
    return buffer.size();
}

size_t GlibArray(size_t count)
{
    GByteArray *array = g_byte_array_new();
    for (; count > 0; count--) {
        g_byte_array_append(array, reinterpret_cast<const guint8 *>(Opaque(PIECE)), PIECE_SIZE);
    }
    const size_t size = array->len;
    g_byte_array_free(array, TRUE);
    return size;
}

void Append(const char *name, size_t count, double best, double bare)
{
    const auto run = [count](size_t (*work)(size_t)) {
        return Repeat([=] { return work(count); });
    };
    bool same = true;
    for (const auto work : {OurBuffer, BareGrowth, StdString, StdVector, FmtBuffer, GlibArray}) {
        same = same && work(count) == count * PIECE_SIZE;
    }
    std::vector<Goal> goals = {{nullptr, best}};
    if (bare != 0) { goals.push_back({"the same growth, bare", bare}); }
    Workload(name, goals, run(OurBuffer),
             {{"std::string", run(StdString)},
              {"std::vector", run(StdVector)},
              {"fmt::memory_buffer", run(FmtBuffer)},
              {"GByteArray", run(GlibArray)},
              {"the same growth, bare", run(BareGrowth), false}},
             same);
}

} // namespace

int main(int argc, char **argv)
{
    Append("DynBuf_Append, 8 x 16 B", 8, 0.5, 1.2);
    Append("DynBuf_Append, 1 MiB of 16 B", 65536, 0.75, 1.1);
    Append("DynBuf_Append, 64 MiB of 16 B", 4194304, 1.0, 0);
    return RunWorkloads(argc, argv);
}
