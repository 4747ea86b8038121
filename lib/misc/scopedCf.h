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
        CFReadStreamClose(stream); // which does nothing to one that has not been opened
        CFRelease(stream);
    }
};

// What a Create or Copy function has returned, or nullptr; ours until release().
template <typename Ref> using ScopedCf = std::unique_ptr<std::remove_pointer_t<Ref>, CfRelease>;

} // namespace pelago

#endif // PELAGO_MISC_SCOPEDCF_H
