// hostFiles.h -- puts other files at the paths that the platform layer opens.  For programs that
// are linked with hostFiles.cpp and wrap open().
#ifndef PELAGO_TESTS_PLATFORM_HOSTFILES_H
#define PELAGO_TESTS_PLATFORM_HOSTFILES_H

#include <fstream>
#include <iterator>
#include <string>

// While a HostFile lives, the path opens a file with this text.
class HostFile {
public:
    HostFile(std::string path, const std::string &text);
    ~HostFile();
    HostFile(const HostFile &) = delete;
    HostFile &operator=(const HostFile &) = delete;

private:
    std::string mPath;
};

// While a HostFileFails lives, opening the path fails with this error.  With EISDIR opening works
// and reading fails.
class HostFileFails {
public:
    HostFileFails(std::string path, int error);
    ~HostFileFails();
    HostFileFails(const HostFileFails &) = delete;
    HostFileFails &operator=(const HostFileFails &) = delete;

private:
    std::string mPath;
};

// Returns the text of the host's real file; "" when it cannot be read.
inline std::string RealFile(const std::string &path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

#endif // PELAGO_TESTS_PLATFORM_HOSTFILES_H
