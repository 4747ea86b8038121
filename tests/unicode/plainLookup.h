// plainLookup.h -- looks an encoding's name up in the plainest way: row by row, and in each row
// name by name.
#ifndef PELAGO_TESTS_UNICODE_PLAINLOOKUP_H
#define PELAGO_TESTS_UNICODE_PLAINLOOKUP_H

#include "encodingRows.h"

#include <iterator>
#include <string>
#include <utility>
#include <vector>

using namespace pelago;

constexpr int PLAIN_NO_ROW = -1;

inline std::string PlainNormalized(const std::string &name)
{
    std::string normalized;
    for (const char byte : name) {
        if (byte >= 'A' && byte <= 'Z') {
            normalized += static_cast<char>(byte + 32);
        } else if ((byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9')) {
            normalized += byte;
        }
    }
    return normalized;
}

// Returns all names and their rows, in the order of the table.
inline const std::vector<std::pair<std::string, int>> &PlainNames()
{
    static const auto sNames = [] {
        std::vector<std::pair<std::string, int>> names;
        for (int row = 0; row < static_cast<int>(std::size(ENCODING_ROWS)); row++) {
            for (const char *const *name = ENCODING_ROWS[row].names; *name != nullptr; name++) {
                names.emplace_back(*name, row);
            }
        }
        return names;
    }();
    return sNames;
}

inline int PlainFindCodePage(const std::string &name)
{
    if (!name.starts_with("windows-") && !name.starts_with("Windows-")) { return PLAIN_NO_ROW; }
    std::string digits = name.substr(8);
    if (digits.find_first_not_of("0123456789") != std::string::npos) { return PLAIN_NO_ROW; }
    digits.erase(0, digits.find_first_not_of('0'));
    for (int row = 0; row < static_cast<int>(std::size(ENCODING_ROWS)); row++) {
        if (std::to_string(ENCODING_ROWS[row].codePage) == digits) { return row; }
    }
    return PLAIN_NO_ROW;
}

// Returns the row of a name that is not cached.
inline int PlainFindRow(const std::string &name)
{
    if (const int row = PlainFindCodePage(name); row != PLAIN_NO_ROW) { return row; }
    for (const auto &[known, row] : PlainNames()) {
        if (known == name) { return row; }
    }
    static const auto sNormalized = [] {
        auto names = PlainNames();
        for (auto &[known, row] : names) {
            known = PlainNormalized(known);
        }
        return names;
    }();
    const std::string normalized = PlainNormalized(name);
    for (const auto &[known, row] : sNormalized) {
        if (known == normalized) { return row; }
    }
    return PLAIN_NO_ROW;
}

inline StringEncoding PlainAnswer(int row)
{
    const bool isAnswer = row != PLAIN_NO_ROW && ENCODING_ROWS[row].isSupported;
    return isAnswer ? ENCODING_ROWS[row].encoding : STRING_ENCODING_UNKNOWN;
}

#endif // PELAGO_TESTS_UNICODE_PLAINLOOKUP_H
