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

// What the system says, as far as it is not asked itself.
inline std::optional<std::string> sSystem, sRelease, sNode;
inline int sUnameCalls, sUnameFailsFrom = INT_MAX;

inline std::optional<std::string> sMachine; // "(fails)": it does not tell

struct Product {
    std::optional<std::string> name, version, build;
};
inline std::map<std::string, Product> sPlists; // by their paths
inline std::vector<std::string> sPlistsRead;
inline int sListsOpen;
inline bool sHostHasLists = true; // as every macOS

#endif // PELAGO_TESTS_MISC_HOSTINFOOSHOST_H
