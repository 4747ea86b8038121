// scopedForTests.h -- resources that are released at the end of a test.
#ifndef PELAGO_TESTS_SUPPORT_SCOPEDFORTESTS_H
#define PELAGO_TESTS_SUPPORT_SCOPEDFORTESTS_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

// A new folder, which is removed with everything in it at the end of the block.
class TemporaryFolder {
public:
    TemporaryFolder() : mPath(testing::TempDir() + "pelagoXXXXXX")
    {
        if (mkdtemp(mPath.data()) == nullptr) {
            ADD_FAILURE() << "no temporary folder";
            abort();
        }
        mPath = std::filesystem::canonical(mPath).string();
    }
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;
    ~TemporaryFolder() { std::filesystem::remove_all(mPath); }
    const std::string &Path() const { return mPath; }

private:
    std::string mPath;
};

// Returns the text of a heap string, and frees the string.  NULL becomes "(none)", which no
// function returns.
inline std::string Take(char *text)
{
    const std::string taken = text == nullptr ? "(none)" : text;
    free(text);
    return taken;
}

#endif // PELAGO_TESTS_SUPPORT_SCOPEDFORTESTS_H
