// Links the whole library, which fails if the library makes a call that the target lacks.
#include "../platform/sdkTypes.h"

int main() { return 0; }
