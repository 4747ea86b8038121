// icuInUse.cpp -- starts like the tool, and prints a text that only ICU converts, or "without ICU".
#include "codeset.h"
#include "location.h"
#include "unicode.h"

#include <cstdio>
#include <cstdlib>

int main()
{
    Location_Init("shareTool");
    Unicode_Init();
    char *text = nullptr;
    const bool converts = CodeSet_GenericToGeneric("Shift_JIS", "\x82\xa0", 2, "UTF-8",
                                                   CODESET_INVALID_FAIL, &text, nullptr);
    puts(converts ? text : "without ICU");
    free(text);
}
