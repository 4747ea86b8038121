/*
 * names.h -- which names of users and shares are allowed, and which Samba takes for the same.
 */
#ifndef PELAGO_HOST_NAMES_H
#define PELAGO_HOST_NAMES_H

#include <string>
#include <string_view>

// Each fails, with the reason, for a name that is refused.
void CheckUserName(const std::string &name);
void CheckShareName(const std::string &name);

// Returns whether the text is valid UTF-8.
bool IsUtf8(std::string_view text);

// Returns the name in the form by which Samba compares names: capital and small letters are the
// same, in ASCII and beyond.  Fails for text that is not UTF-8.
std::string Folded(std::string_view name);

// Returns whether Samba would take the name for a security identifier, "S-1-...".  The name is
// UTF-8.
bool IsSidLike(std::string_view name);

#endif // PELAGO_HOST_NAMES_H
