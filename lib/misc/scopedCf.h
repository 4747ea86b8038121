// scopedCf.h -- objects of Core Foundation that are released at the end of a block.
#ifndef PELAGO_MISC_SCOPEDCF_H
#define PELAGO_MISC_SCOPEDCF_H

#include <CoreFoundation/CoreFoundation.h>

#include <memory>
#include <type_traits>

namespace pelago {

struct CfRelease {
    void operator()(CFTypeRef object) const noexcept { CFRelease(object); }
    void operator()(CFReadStreamRef stream) const noexcept
    {
        CFReadStreamClose(stream); // does nothing to a stream that was not opened
        CFRelease(stream);
    }
};

// The result of a Create or Copy function, or nullptr; released at the end of the block.
template <typename Ref> using ScopedCf = std::unique_ptr<std::remove_pointer_t<Ref>, CfRelease>;

} // namespace pelago

#endif // PELAGO_MISC_SCOPEDCF_H
