/*
 * propertyListReader.h -- property lists that the guard has let pass, as Core Foundation objects.
 *
 * A list that is only read needs no tree to be written back from, and so no libplist: programs on
 * the installed library load none.
 *
 * Both give a new object of the caller's, and may throw std::bad_alloc.  The text comes without a
 * byte-order mark, and its lines end with newlines alone.
 */
#ifndef PELAGO_LINUX_PROPERTYLISTREADER_H
#define PELAGO_LINUX_PROPERTYLISTREADER_H

#include <CoreFoundation/CoreFoundation.h>

#include <string_view>

namespace pelago::platform {

CFTypeRef PropertyListReadXml(std::string_view text);
CFTypeRef PropertyListReadBinary(std::string_view bytes);

} // namespace pelago::platform

#endif /* PELAGO_LINUX_PROPERTYLISTREADER_H */
