// promisedEncodings.h -- the encodings, as encodingList.h promises them.
#ifndef PELAGO_TESTS_UNICODE_PROMISEDENCODINGS_H
#define PELAGO_TESTS_UNICODE_PROMISEDENCODINGS_H

#include "unicode.h"

#include "encodingList.h"

#include <string>
#include <vector>

struct PromisedEncoding {
    int value;
    StringEncoding constant;
    std::string constantName, preferredName;
    bool isSupported;
    std::vector<int> codePages;
};
#define PROMISED(value, constant, preferred, isSupported, ...)                                     \
    {value, STRING_ENCODING_##constant, #constant, preferred, isSupported, __VA_ARGS__},
inline const std::vector<PromisedEncoding> PROMISED_ENCODINGS{ENCODINGS(PROMISED)};

#endif // PELAGO_TESTS_UNICODE_PROMISEDENCODINGS_H
