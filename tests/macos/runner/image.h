// image.h -- a Mach-O program in memory.
#pragma once

#include "machoFormat.h"

#include <functional>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

struct Segment {
    std::string name;
    std::byte *start;
    size_t size;
    int protection; // as mprotect() takes it
};

struct Section {
    std::string name;
    std::byte *start;
    size_t size;
    uint32_t type;
};

struct Image {
    std::vector<std::byte> file; // without the file's __LINKEDIT nothing can be bound
    std::byte *base = nullptr;   // where the header is
    intptr_t slide = 0;          // what is added to each address in the file
    std::vector<Segment> segments;
    std::vector<Section> sections;
    std::map<std::string, std::byte *, std::less<>> symbols; // what it defines, hidden or not
    macho::DyldInfoCommand dyldInfo{};
    std::byte *main = nullptr;

    const Section *FindSection(std::string_view name) const;
    const Section *FindSection(uint32_t type) const;
    std::byte *At(uint32_t offset) const { return base + offset; }
};

// Reads and maps a program; Refuse()s what is not one, and each command that is not known.
Image MapImage(std::vector<std::byte> file);

// Adds the slide to each pointer that the file lists.
void RebaseImage(const Image &image);

// Finds what an import is bound to; Refuse()s what is not known.
using Resolve = std::function<void *(std::string_view symbol)>;

// Puts the address of each import in its place, those of weak definitions and of lazy pointers,
// too.
void BindImage(const Image &image, const Resolve &resolve);

// Gives the segments the protection that the file asks for.
void ProtectImage(const Image &image);

// The C++ runtime finds the functions of the image from here on.
void RegisterUnwinding(const Image &image);

// Prepares the image's thread-local variables, which each thread has anew.
void PrepareThreadLocals(const Image &image);

// Runs the image's initialisers and its main(); returns its status.
int StartImage(const Image &image, int argc, char **argv);
// What the program was started with.
int *ProgramArgumentCount();
char ***ProgramArguments();
