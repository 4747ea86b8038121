/*
 * password.h -- reads the user's password from its file.
 */
#ifndef PELAGO_HOST_PASSWORD_H
#define PELAGO_HOST_PASSWORD_H

#include <string>

// Reads the file once, and returns its only line without the newline.  Fails when the file cannot
// be read, and for a password that Samba would accept but store as another one: an empty one, one
// of more than 127 bytes, and one with a NUL or a second line.  Prints a warning when others than
// the file's owner can read it.
std::string ReadPassword(const std::string &file);

#endif // PELAGO_HOST_PASSWORD_H
