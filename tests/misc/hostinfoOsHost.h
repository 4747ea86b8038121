// hostinfoOsHost.h -- a host whose name, kernel and version lists a test chooses.
#ifndef PELAGO_TESTS_MISC_HOSTINFOOSHOST_H
#define PELAGO_TESTS_MISC_HOSTINFOOSHOST_H

#include "hostinfoInt.h"

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <optional>
#include <string>
#include <vector>

// What the wrapped calls return; nullopt: the real system's value.
inline std::optional<std::string> sSystem, sRelease, sNode;
inline int sUnameCalls, sUnameFailsFrom = INT_MAX;

inline std::optional<std::string> sMachine; // "(fails)": the call fails

struct Product {
    std::optional<std::string> name, version, build;
};
inline std::map<std::string, Product> sPlists; // by path
inline std::vector<std::string> sPlistsRead;
inline int sListsOpen;
inline bool sHostHasLists = true; // as on every macOS

#endif // PELAGO_TESTS_MISC_HOSTINFOOSHOST_H
