// useIcu.h -- switches conversions to ICU, in the way that programs do it.
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
