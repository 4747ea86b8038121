// cfError.cpp -- errors: objects that contain the code of a call's failure.
#include "cfTypes.h"

using namespace pelago::platform;

namespace {

bool ErrorEqual(const CFObject *one, const CFObject *other)
{
    return static_cast<const __CFError *>(one)->mCode ==
           static_cast<const __CFError *>(other)->mCode;
}

constexpr CFClass ERROR_CLASS = {CF_TYPE_ERROR, CFDestroy<__CFError>, ErrorEqual};

} // namespace

__CFError::__CFError(CFIndex code) : CFObject(ERROR_CLASS), mCode(code) {}

CFErrorRef pelago::platform::CFErrorCreateWithCode(CFIndex code) { return CFNew<__CFError>(code); }

extern "C" CFTypeID CFErrorGetTypeID(void) { return CF_TYPE_ERROR; }

extern "C" CFIndex CFErrorGetCode(CFErrorRef error)
{
    CFRequire(error, CF_TYPE_ERROR, __func__);
    return error->mCode;
}
