// image.cpp -- maps the segments of a Mach-O program.
#include "image.h"

#include "refuse.h"

#include <cstring>
#include <sys/mman.h>

namespace {

constexpr std::string_view PAGE_ZERO = "__PAGEZERO"; // a segment that only reserves addresses

std::string FixedName(const char (&name)[16]) { return {name, strnlen(name, sizeof name)}; }

template <typename T> const T &Read(const std::vector<std::byte> &file, size_t offset)
{
    if (offset > file.size() || file.size() - offset < sizeof(T)) {
        Refuse("the file ends within a structure at %zu", offset);
    }
    return *reinterpret_cast<const T *>(file.data() + offset);
}

const macho::Header &CheckHeader(const std::vector<std::byte> &file)
{
    const auto &header = Read<macho::Header>(file, 0);
    if (header.magic != DARWIN_MH_MAGIC_64) { Refuse("not a Mach-O file of 64 bits"); }
    if (header.cputype != DARWIN_CPU_TYPE_X86_64) { Refuse("not for x86-64"); }
    if (header.filetype != DARWIN_MH_EXECUTE) { Refuse("not a program"); }
    if ((header.flags & DARWIN_MH_PIE) == 0) { Refuse("the program cannot be moved"); }
    return header;
}

using Visit = std::function<void(const macho::Command &, size_t offset)>;

void EachCommand(const std::vector<std::byte> &file, const Visit &visit)
{
    size_t offset = sizeof(macho::Header);
    for (uint32_t i = 0; i < CheckHeader(file).ncmds; i++) {
        const auto &command = Read<macho::Command>(file, offset);
        if (command.cmdsize < sizeof command) { Refuse("a load command without a size"); }
        visit(command, offset);
        offset += command.cmdsize;
    }
}

// The range of addresses from the first segment to the end of the last.
struct Extent {
    uint64_t first = UINT64_MAX, end = 0;
};

Extent Measure(const std::vector<std::byte> &file)
{
    Extent extent;
    EachCommand(file, [&](const macho::Command &command, size_t offset) {
        if (command.cmd != DARWIN_LC_SEGMENT_64) { return; }
        const auto &segment = Read<macho::SegmentCommand>(file, offset);
        if (FixedName(segment.segname) == PAGE_ZERO) { return; }
        extent.first = std::min(extent.first, segment.vmaddr);
        extent.end = std::max(extent.end, segment.vmaddr + segment.vmsize);
    });
    if (extent.first >= extent.end) { Refuse("the program has no segments"); }
    return extent;
}

int HostProtection(int32_t darwin)
{
    static_assert(DARWIN_PROT_READ == PROT_READ && DARWIN_PROT_WRITE == PROT_WRITE &&
                  DARWIN_PROT_EXEC == PROT_EXEC);
    return darwin & (PROT_READ | PROT_WRITE | PROT_EXEC);
}

void AddSections(Image &image, const macho::SegmentCommand &segment, size_t offset)
{
    for (uint32_t i = 0; i < segment.nsects; i++) {
        const auto &section = Read<macho::SectionHeader>(image.file, offset);
        image.sections.push_back(
            {FixedName(section.sectname), reinterpret_cast<std::byte *>(section.addr + image.slide),
             section.size, section.flags & static_cast<uint32_t>(DARWIN_SECTION_TYPE)});
        offset += sizeof section;
    }
}

void MapSegment(Image &image, size_t offset)
{
    const auto &segment = Read<macho::SegmentCommand>(image.file, offset);
    auto *start = reinterpret_cast<std::byte *>(segment.vmaddr + image.slide);
    // Segments are kept in this order: the bind opcodes name segments by number.
    image.segments.push_back(
        {FixedName(segment.segname), start, segment.vmsize, HostProtection(segment.initprot)});
    if (FixedName(segment.segname) == PAGE_ZERO) { return; }
    if (segment.filesize > segment.vmsize || segment.fileoff > image.file.size() ||
        segment.filesize > image.file.size() - segment.fileoff) {
        Refuse("segment %s is longer than its file", FixedName(segment.segname).c_str());
    }
    if (segment.filesize > 0) {
        memcpy(start, image.file.data() + segment.fileoff, segment.filesize);
    }
    AddSections(image, segment, offset + sizeof segment);
}

void ReadSymbols(Image &image, const macho::SymbolCommand &table)
{
    for (uint32_t i = 0; i < table.nsyms; i++) {
        const auto &symbol =
            Read<macho::Symbol>(image.file, table.symoff + i * sizeof(macho::Symbol));
        const bool isDefined = (symbol.n_type & DARWIN_N_STAB) == 0 &&
                               (symbol.n_type & DARWIN_N_TYPE) == DARWIN_N_SECT;
        if (!isDefined) { continue; }
        const auto *name = &Read<char>(image.file, table.stroff + symbol.name);
        image.symbols.emplace(name, reinterpret_cast<std::byte *>(symbol.n_value + image.slide));
    }
}

// Load commands that are handled elsewhere, or only by dyld and the kernel of a Mac.
bool IsNothingToDo(uint32_t command)
{
    for (const auto known :
         {DARWIN_LC_DYSYMTAB, DARWIN_LC_LOAD_DYLIB, DARWIN_LC_LOAD_DYLINKER, DARWIN_LC_UUID,
          DARWIN_LC_BUILD_VERSION, DARWIN_LC_FUNCTION_STARTS, DARWIN_LC_DATA_IN_CODE,
          DARWIN_LC_SOURCE_VERSION, DARWIN_LC_CODE_SIGNATURE}) {
        if (command == known) { return true; }
    }
    return false;
}

void TakeCommand(Image &image, const macho::Command &command, size_t offset)
{
    if (command.cmd == DARWIN_LC_SEGMENT_64) { return MapSegment(image, offset); }
    if (command.cmd == DARWIN_LC_SYMTAB) {
        return ReadSymbols(image, Read<macho::SymbolCommand>(image.file, offset));
    }
    if (command.cmd == DARWIN_LC_DYLD_INFO_ONLY) {
        image.dyldInfo = Read<macho::DyldInfoCommand>(image.file, offset);
    } else if (command.cmd == DARWIN_LC_MAIN) {
        image.main = image.base + Read<macho::EntryCommand>(image.file, offset).entryoff;
    } else if (!IsNothingToDo(command.cmd)) {
        Refuse("load command 0x%x is not known", command.cmd);
    }
}

} // namespace

const Section *Image::FindSection(std::string_view name) const
{
    for (const Section &section : sections) {
        if (section.name == name) { return &section; }
    }
    return nullptr;
}

const Section *Image::FindSection(uint32_t type) const
{
    for (const Section &section : sections) {
        if (section.type == type) { return &section; }
    }
    return nullptr;
}

Image MapImage(std::vector<std::byte> file)
{
    Image image;
    image.file = std::move(file);
    const Extent extent = Measure(image.file);
    void *memory = mmap(nullptr, extent.end - extent.first, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) { Refuse("there is no memory for the program"); }
    image.base = static_cast<std::byte *>(memory);
    image.slide = reinterpret_cast<intptr_t>(memory) - static_cast<intptr_t>(extent.first);
    EachCommand(image.file, [&](const macho::Command &command, size_t offset) {
        TakeCommand(image, command, offset);
    });
    if (image.main == nullptr) { Refuse("the program has no main()"); }
    if (image.dyldInfo.cmd == 0) { Refuse("the program does not say what is to be bound"); }
    return image;
}

void ProtectImage(const Image &image)
{
    for (const Segment &segment : image.segments) {
        if (segment.name == PAGE_ZERO || segment.size == 0) { continue; }
        if (mprotect(segment.start, segment.size, segment.protection) != 0) {
            Refuse("segment %s cannot be protected", segment.name.c_str());
        }
    }
}
