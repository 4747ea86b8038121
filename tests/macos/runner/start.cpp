// start.cpp -- runs what dyld runs.
#include "image.h"
#include "refuse.h"

#include <cstdlib>
#include <unistd.h>

namespace {

using Initialiser = void (*)(int, char **, char **, const char *const *, const void *);
using Main = int (*)(int, char **, char **, const char *const *);

const char *const NO_KERNEL_STRINGS[] = {nullptr};

int sArgc;
char **sArgv;

} // namespace

int *ProgramArgumentCount() { return &sArgc; }
char ***ProgramArguments() { return &sArgv; }

int StartImage(const Image &image, int argc, char **argv)
{
    if (image.FindSection(DARWIN_S_MOD_TERM_FUNC_POINTERS) != nullptr ||
        image.FindSection(DARWIN_S_INIT_FUNC_OFFSETS) != nullptr) {
        Refuse("initialisers by offset, and terminators, are not known");
    }
    sArgc = argc;
    sArgv = argv;
    for (const Section &section : image.sections) {
        if (section.type != DARWIN_S_MOD_INIT_FUNC_POINTERS) { continue; }
        const std::span initialisers(reinterpret_cast<Initialiser *>(section.start),
                                     section.size / sizeof(Initialiser));
        for (const Initialiser initialiser : initialisers) {
            initialiser(argc, argv, environ, NO_KERNEL_STRINGS, nullptr);
        }
    }
    return reinterpret_cast<Main>(image.main)(argc, argv, environ, NO_KERNEL_STRINGS);
}
