// Compares a cached error text with the calls that one would use instead.
#include "workloads.h"

#include "err.h"

#include <cerrno>
#include <cstring>
#include <glib.h>
#include <string>
#include <system_error>

int main(int argc, char **argv)
{
    const auto system = [] {
        char buffer[256];
        return strerror_r(Opaque(ENOENT), buffer, sizeof buffer);
    };
    const bool same = strcmp(Err_NumberToText(ENOENT), g_strerror(ENOENT)) == 0 &&
                      std::system_category().message(ENOENT) == Err_NumberToText(ENOENT);
    Workload("the text of ENOENT, cached", {{"g_strerror", 0.7}, {"strerror_r", 0.2}},
             Repeat([] { return Err_NumberToText(Opaque(ENOENT)); }),
             {{"g_strerror", Repeat([] { return g_strerror(Opaque(ENOENT)); })},
              {"strerror_r", Repeat(system)},
              {"strerror", Repeat([] { return strerror(Opaque(ENOENT)); })},
              {"std::system_category",
               Repeat([] { return std::system_category().message(Opaque(ENOENT)); })}},
             same);
    return RunWorkloads(argc, argv);
}
