// The library with nothing left out: calls of it that the target lacks do not link.
#include "../platform/sdkTypes.h"

int main() { return 0; }
