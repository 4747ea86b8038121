// machoFormat.h -- the parts of a Mach-O file that the runner reads, as Darwin's headers lay them
// out.
#pragma once

#include "layout.h"

#include <cstdint>

namespace macho {

struct Header {
    uint32_t magic;
    int32_t cputype;
    int32_t cpusubtype;
    uint32_t filetype;
    uint32_t ncmds;
    uint32_t sizeofcmds;
    uint32_t flags;
    uint32_t reserved;
};
DARWIN_SIZE(Header, mach_header_64);
DARWIN_FIELD(Header, mach_header_64, ncmds);
DARWIN_FIELD(Header, mach_header_64, flags);

struct Command {
    uint32_t cmd;
    uint32_t cmdsize;
};
DARWIN_SIZE(Command, load_command);

struct SegmentCommand : Command {
    char segname[16];
    uint64_t vmaddr;
    uint64_t vmsize;
    uint64_t fileoff;
    uint64_t filesize;
    int32_t maxprot;
    int32_t initprot;
    uint32_t nsects;
    uint32_t flags;
};
DARWIN_SIZE(SegmentCommand, segment_command_64);

struct SectionHeader {
    char sectname[16];
    char segname[16];
    uint64_t addr;
    uint64_t size;
    uint32_t offset;
    uint32_t align;
    uint32_t reloff;
    uint32_t nreloc;
    uint32_t flags;
    uint32_t reserved[3];
};
DARWIN_SIZE(SectionHeader, section_64);
DARWIN_FIELD(SectionHeader, section_64, addr);
DARWIN_FIELD(SectionHeader, section_64, size);
DARWIN_FIELD(SectionHeader, section_64, flags);

struct SymbolCommand : Command {
    uint32_t symoff;
    uint32_t nsyms;
    uint32_t stroff;
    uint32_t strsize;
};
DARWIN_SIZE(SymbolCommand, symtab_command);

struct DyldInfoCommand : Command {
    uint32_t rebase_off, rebase_size;
    uint32_t bind_off, bind_size;
    uint32_t weak_bind_off, weak_bind_size;
    uint32_t lazy_bind_off, lazy_bind_size;
    uint32_t export_off, export_size;
};
DARWIN_SIZE(DyldInfoCommand, dyld_info_command);

struct EntryCommand : Command {
    uint64_t entryoff;
    uint64_t stacksize;
};
DARWIN_SIZE(EntryCommand, entry_point_command);

struct Symbol {
    uint32_t name; // its offset in the table of strings
    uint8_t n_type;
    uint8_t n_sect;
    uint16_t n_desc;
    uint64_t n_value;
};
DARWIN_SIZE(Symbol, nlist_64);
DARWIN_FIELD(Symbol, nlist_64, n_type);
DARWIN_FIELD(Symbol, nlist_64, n_value);

struct UnwindHeader {
    uint32_t version;
    uint32_t commonEncodingsArraySectionOffset;
    uint32_t commonEncodingsArrayCount;
    uint32_t personalityArraySectionOffset;
    uint32_t personalityArrayCount;
    uint32_t indexSectionOffset;
    uint32_t indexCount;
};
DARWIN_SIZE(UnwindHeader, unwind_info_section_header);
DARWIN_FIELD(UnwindHeader, unwind_info_section_header, indexCount);

struct UnwindIndexEntry {
    uint32_t functionOffset;
    uint32_t secondLevelPagesSectionOffset;
    uint32_t lsdaIndexArraySectionOffset;
};
DARWIN_SIZE(UnwindIndexEntry, unwind_info_section_header_index_entry);

struct UnwindLsdaEntry {
    uint32_t functionOffset;
    uint32_t lsdaOffset;
};
DARWIN_SIZE(UnwindLsdaEntry, unwind_info_section_header_lsda_index_entry);

struct UnwindRegularPage {
    uint32_t kind;
    uint16_t entryPageOffset;
    uint16_t entryCount;
};
DARWIN_SIZE(UnwindRegularPage, unwind_info_regular_second_level_page_header);

struct UnwindRegularEntry {
    uint32_t functionOffset;
    uint32_t encoding;
};
DARWIN_SIZE(UnwindRegularEntry, unwind_info_regular_second_level_entry);

struct UnwindCompressedPage : UnwindRegularPage {
    uint16_t encodingsPageOffset;
    uint16_t encodingsCount;
};
DARWIN_SIZE(UnwindCompressedPage, unwind_info_compressed_second_level_page_header);

} // namespace macho
