// plistCopy [IN OUT]... -- reads each list and writes it as a commit would, for comparison.
// Prints a line for each pair: "ok", or the reason why the list was refused.
#include "propertyList.h"

#include <cstdio>
#include <fstream>
#include <iterator>

using namespace pelago::platform;

static PropertyListFault Copy(const char *in, const char *out)
{
    std::ifstream source(in, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(source), {}};
    PropertyList list;
    const PropertyListFault readFault = list.Read(bytes);
    if (readFault != PropertyListFault::None) { return readFault; }
    std::string written;
    const PropertyListFault writeFault = list.Write(&written);
    std::ofstream(out, std::ios::binary) << written;
    return writeFault;
}

int main(int argc, char **argv)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const PropertyListFault fault = Copy(argv[i], argv[i + 1]);
        puts(fault == PropertyListFault::None ? "ok" : PropertyListFaultText(fault));
    }
    return 0;
}
