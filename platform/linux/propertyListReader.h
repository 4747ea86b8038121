/*
 * propertyListReader.h -- property lists that the guard has let pass, as Core Foundation objects.
 *
 * Whoever only reads needs no tree that keeps what it cannot tell, and so no libplist: a program on
 * the library has none to load.
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
