// cfReadStream.cpp -- streams that read a file.
#include "cfTypes.h"

#include <fcntl.h>
#include <sys/stat.h>

using namespace pelago::platform;

namespace {

bool ReadStreamEqual(const CFObject *one, const CFObject *other) { return one == other; }

constexpr CFClass READ_STREAM_CLASS = {CF_TYPE_READ_STREAM, CFDestroy<__CFReadStream>,
                                       ReadStreamEqual};

} // namespace

__CFReadStream::__CFReadStream(std::string path)
    : CFObject(READ_STREAM_CLASS), mPath(std::move(path))
{}

extern "C" CFTypeID CFReadStreamGetTypeID(void) { return CF_TYPE_READ_STREAM; }

extern "C" CFReadStreamRef CFReadStreamCreateWithFile(CFAllocatorRef, CFURLRef file)
{
    CFRequire(file, CF_TYPE_URL, __func__);
    try {
        return new __CFReadStream(file->mPath);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

extern "C" Boolean CFReadStreamOpen(CFReadStreamRef stream)
{
    CFRequire(stream, CF_TYPE_READ_STREAM, __func__);
    if (stream->mWasOpened) { return false; }
    stream->mWasOpened = true;
    // O_NONBLOCK: if the file is a pipe, open() must not wait for its other end.
    OwnedFd fd(open(stream->mPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status;
    if (!fd.IsOpen() || fstat(fd.Get(), &status) != 0 || !S_ISREG(status.st_mode)) { return false; }
    stream->mFd = std::move(fd);
    return true;
}

extern "C" void CFReadStreamClose(CFReadStreamRef stream)
{
    CFRequire(stream, CF_TYPE_READ_STREAM, __func__);
    stream->mFd.Close();
}
