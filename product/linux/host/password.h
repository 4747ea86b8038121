/*
 * password.h -- the file that holds the user's password.
 */
#ifndef PELAGO_HOST_PASSWORD_H
#define PELAGO_HOST_PASSWORD_H

#include <string>

// Reads the file once.  Fails for a password that Samba would take, but not as it is: an empty one,
// one of more than 127 bytes, or one with a NUL or a second line.  Warns of a file that others can
// read.
std::string ReadPassword(const std::string &file);

#endif // PELAGO_HOST_PASSWORD_H
