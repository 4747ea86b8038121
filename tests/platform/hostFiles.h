// hostFiles.h -- other files under the paths that the platform layer opens.  For programs that are
// linked with hostFiles.cpp and wrap open().
#ifndef PELAGO_TESTS_PLATFORM_HOSTFILES_H
#define PELAGO_TESTS_PLATFORM_HOSTFILES_H

#include <fstream>
#include <iterator>
#include <string>

// At the path is a file with this text, while it lives.
class HostFile {
public:
    HostFile(std::string path, const std::string &text);
    ~HostFile();
    HostFile(const HostFile &) = delete;
    HostFile &operator=(const HostFile &) = delete;

private:
    std::string mPath;
};

// Opening the path fails with this error, while it lives.  With EISDIR it is reading that fails.
class HostFileFails {
public:
    HostFileFails(std::string path, int error);
    ~HostFileFails();
    HostFileFails(const HostFileFails &) = delete;
    HostFileFails &operator=(const HostFileFails &) = delete;

private:
    std::string mPath;
};

// What is really there; "" when it cannot be read.
inline std::string RealFile(const std::string &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

#endif // PELAGO_TESTS_PLATFORM_HOSTFILES_H
