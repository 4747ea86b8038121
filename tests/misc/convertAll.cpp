// Converts many short texts from one encoding to another with ICU:
//    convertAll CODE_IN CODE_OUT <texts >results
// Each text and each result is its size in four bytes, the lowest first, and then its bytes.  The
// size -1 is a failure.
#include "codeset.h"

#include "scopedForTests.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <vector>

namespace {

bool ReadText(std::vector<char> *text)
{
    int32_t size = 0;
    if (fread(&size, sizeof size, 1, stdin) != 1) { return false; }
    text->resize(static_cast<size_t>(size));
    return fread(text->data(), 1, text->size(), stdin) == text->size();
}

void WriteResult(const char *bytes, int32_t size)
{
    fwrite(&size, sizeof size, 1, stdout);
    if (size > 0) { fwrite(bytes, 1, static_cast<size_t>(size), stdout); }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) { return 2; }
    const TemporaryFolder folder;
    std::ofstream(folder.Path() + "/icudt44l.dat") << "data";
    CodeSet_Init(folder.Path().c_str());
    for (std::vector<char> text; ReadText(&text);) {
        char *out = nullptr;
        size_t size = 0;
        const bool done = CodeSet_GenericToGeneric(argv[1], text.data(), text.size(), argv[2],
                                                   CODESET_INVALID_FAIL, &out, &size);
        WriteResult(out, done ? static_cast<int32_t>(size) : -1);
        free(out);
    }
    return fflush(stdout) == 0 ? 0 : 1;
}
