// useIcu.h -- conversions through ICU from now on, as programs get them.
#ifndef PELAGO_TESTS_SUPPORT_USEICU_H
#define PELAGO_TESTS_SUPPORT_USEICU_H

#include "codeset.h"
#include "scopedForTests.h"

#include <fstream>

inline void UseIcu()
{
    const TemporaryFolder folder;
    std::ofstream(folder.Path() + "/icudt44l.dat") << "data";
    EXPECT_TRUE(CodeSet_Init(folder.Path().c_str()));
}

#endif // PELAGO_TESTS_SUPPORT_USEICU_H
