/*
 * names.h -- which names of users and shares are taken, and when Samba holds two for the same.
 */
#ifndef PELAGO_HOST_NAMES_H
#define PELAGO_HOST_NAMES_H

#include <string>
#include <string_view>

// These fail, with the reason, for a name that is refused.
void CheckUserName(const std::string &name);
void CheckShareName(const std::string &name);

bool IsUtf8(std::string_view text);

// The name as Samba compares names: without the difference between capital and small letters, in
// ASCII and beyond.  Takes UTF-8.
std::string Folded(std::string_view name);

// Whether Samba would read the name as a security identifier, "S-1-...".
bool IsSidLike(std::string_view name);

#endif // PELAGO_HOST_NAMES_H
