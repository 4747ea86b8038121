// Converts many short texts from one encoding to another, and prints why and where each failed:
//    tellFailures icu|alone CODE_IN CODE_OUT <texts >failures
// Each text is its size in four bytes, the lowest first, and then its bytes.  Each failure is a
// line with the reason's number and the offset.
#include "codeset.h"

#include "scopedForTests.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <vector>

static bool ReadText(std::vector<char> *text)
{
    int32_t size = 0;
    if (fread(&size, sizeof size, 1, stdin) != 1) { return false; }
    text->resize(static_cast<size_t>(size));
    return fread(text->data(), 1, text->size(), stdin) == text->size();
}

int main(int argc, char **argv)
{
    if (argc != 4) { return 2; }
    const TemporaryFolder folder;
    if (strcmp(argv[1], "icu") == 0) { std::ofstream(folder.Path() + "/icudt44l.dat") << "data"; }
    CodeSet_Init(folder.Path().c_str());
    for (std::vector<char> text; ReadText(&text);) {
        char *out = nullptr;
        CodeSetFailure failure;
        CodeSet_Convert(argv[2], text.data(), text.size(), argv[3], CODESET_INVALID_FAIL, &out,
                        nullptr, &failure);
        printf("%d %zu\n", failure.reason, failure.offset);
        free(out);
    }
    return fflush(stdout) == 0 ? 0 : 1;
}
