// main.cpp -- machoRunner: runs a Mach-O program of macOS on Linux, both on x86-64.
//
//    machoRunner PROGRAM [ARG...]     runs it, with the arguments
//    machoRunner --wrap PROGRAM OUT   makes OUT, an executable of this host that runs it
//
// The machine code runs unchanged; imports are bound to this host's functions (rows.h).  An unknown
// import or request ends the program with status 126 and a line that names it.
#include "bind.h"
#include "image.h"
#include "refuse.h"
#include "wrapped.h"

#include <cstdlib>
#include <cstring>

namespace {

[[noreturn]] void Run(std::vector<std::byte> file, int argc, char **argv)
{
    // Never destroyed: functions that run at exit still use it.
    auto &image = *new Image(MapImage(std::move(file)));
    RebaseImage(image);
    BindImports(image);
    PrepareThreadLocals(image);
    RegisterUnwinding(image);
    ProtectImage(image);
    exit(StartImage(image, argc, argv));
}

} // namespace

int main(int argc, char **argv)
{
    if (auto file = WrappedProgram()) { Run(std::move(*file), argc, argv); }
    if (argc == 4 && strcmp(argv[1], "--wrap") == 0) {
        WrapProgram(argv[2], argv[3]);
        return 0;
    }
    if (argc < 2 || argv[1][0] == '-') { Refuse("usage: machoRunner [--wrap] PROGRAM [ARG...]"); }
    SetStartedProgram(argv[1]);
    Run(ReadProgram(argv[1]), argc - 1, argv + 1);
}
