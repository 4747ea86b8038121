// unwind.cpp -- lets exceptions through the image's frames.
// Darwin's compact unwind encodes in 32 bits how to unwind a function's frame.  The C++ runtime of
// this host reads .eh_frame, so each entry is translated to one of that kind.
#include "image.h"
#include "refuse.h"

#include <array>
#include <cstring>

extern "C" void __register_frame(void *);

namespace {

// Registers by their DWARF numbers on x86-64.
enum : uint8_t { RBX = 3, RBP = 6, RSP = 7, R12 = 12, R13 = 13, R14 = 14, R15 = 15, RETURN = 16 };

// The instructions of .eh_frame that are needed.
enum : uint8_t { DEFINE_CFA = 0x0C, OFFSET = 0x80 };
constexpr uint8_t DATA_ALIGNMENT_SLEB = 0x78; // -8, as DWARF writes it

class Bytes {
public:
    template <typename T> void Put(T value)
    {
        const auto *start = reinterpret_cast<const std::byte *>(&value);
        mBytes.insert(mBytes.end(), start, start + sizeof value);
    }

    void PutUleb(uint64_t value)
    {
        do {
            const uint8_t more = value > 0x7F ? 0x80 : 0;
            Put<uint8_t>(static_cast<uint8_t>((value & 0x7F) | more));
            value >>= 7;
        } while (value != 0);
    }

    void PutBytes(std::span<const std::byte> bytes)
    {
        mBytes.insert(mBytes.end(), bytes.begin(), bytes.end());
    }

    size_t Size() const { return mBytes.size(); }
    void Set32(size_t offset, size_t value)
    {
        const auto number = static_cast<uint32_t>(value);
        memcpy(&mBytes[offset], &number, sizeof number);
    }
    void Pad()
    {
        while (mBytes.size() % 8 != 0) {
            mBytes.push_back(std::byte{0}); // an instruction that does nothing
        }
    }
    std::vector<std::byte> &Content() { return mBytes; }

private:
    std::vector<std::byte> mBytes;
};

struct Function {
    const std::byte *start;
    const std::byte *end;
    uint32_t encoding;
    const std::byte *lsda;
};

uint32_t Part(uint32_t encoding, long long mask)
{
    return (encoding & static_cast<uint32_t>(mask)) /
           (static_cast<uint32_t>(mask) & -static_cast<uint32_t>(mask));
}

uint8_t DwarfRegister(uint32_t compact)
{
    switch (compact) {
    case DARWIN_UNWIND_X86_64_REG_RBX: return RBX;
    case DARWIN_UNWIND_X86_64_REG_R12: return R12;
    case DARWIN_UNWIND_X86_64_REG_R13: return R13;
    case DARWIN_UNWIND_X86_64_REG_R14: return R14;
    case DARWIN_UNWIND_X86_64_REG_R15: return R15;
    case DARWIN_UNWIND_X86_64_REG_RBP: return RBP;
    default: Refuse("compact unwind saves register %u", compact);
    }
}

void DefineCfa(Bytes &out, uint8_t reg, uint64_t offset)
{
    out.Put<uint8_t>(DEFINE_CFA);
    out.PutUleb(reg);
    out.PutUleb(offset);
}

// The register is saved this many words below the frame's address.
void SavedAt(Bytes &out, uint8_t reg, uint64_t words)
{
    out.Put<uint8_t>(OFFSET | reg);
    out.PutUleb(words);
}

void WriteFrameWithPointer(Bytes &out, uint32_t encoding)
{
    DefineCfa(out, RBP, 16);
    SavedAt(out, RETURN, 1);
    SavedAt(out, RBP, 2);
    const uint32_t below = Part(encoding, DARWIN_UNWIND_X86_64_RBP_FRAME_OFFSET);
    uint32_t registers = Part(encoding, DARWIN_UNWIND_X86_64_RBP_FRAME_REGISTERS);
    for (uint32_t i = 0; i < 5; i++, registers >>= 3) {
        const uint32_t compact = registers & 7;
        if (compact != DARWIN_UNWIND_X86_64_REG_NONE) {
            SavedAt(out, DwarfRegister(compact), 2 + below - i);
        }
    }
}

// One number encodes which of six registers are saved, and in which order: each digit counts the
// registers not used before.
std::vector<uint8_t> Permuted(uint32_t count, uint32_t permutation)
{
    if (count > 6) { Refuse("compact unwind saves %u registers", count); }
    std::vector<uint32_t> free = {1, 2, 3, 4, 5, 6};
    std::vector<uint8_t> registers;
    for (uint32_t i = 0; i < count; i++) {
        uint32_t weight = 1;
        const uint32_t last = count == 6 ? 5 : count; // the sixth is the one left, without a digit
        for (uint32_t j = i + 1; j < last; j++) {
            weight *= 6 - j;
        }
        const uint32_t digit = i < last ? permutation / weight : 0;
        permutation -= digit * weight;
        if (digit >= free.size()) { Refuse("compact unwind has a wrong permutation"); }
        registers.push_back(DwarfRegister(free[digit]));
        free.erase(free.begin() + digit);
    }
    return registers;
}

uint64_t StackSize(const Function &function, bool isIndirect)
{
    const uint32_t size = Part(function.encoding, DARWIN_UNWIND_X86_64_FRAMELESS_STACK_SIZE);
    if (!isIndirect) { return size * 8ULL; }
    uint32_t subtracted = 0; // by the instruction that makes the frame
    memcpy(&subtracted, function.start + size, sizeof subtracted);
    return subtracted + Part(function.encoding, DARWIN_UNWIND_X86_64_FRAMELESS_STACK_ADJUST) * 8ULL;
}

void WriteFrameWithoutPointer(Bytes &out, const Function &function, bool isIndirect)
{
    DefineCfa(out, RSP, StackSize(function, isIndirect));
    SavedAt(out, RETURN, 1);
    const auto registers =
        Permuted(Part(function.encoding, DARWIN_UNWIND_X86_64_FRAMELESS_STACK_REG_COUNT),
                 Part(function.encoding, DARWIN_UNWIND_X86_64_FRAMELESS_STACK_REG_PERMUTATION));
    for (size_t i = 0; i < registers.size(); i++) {
        SavedAt(out, registers[i], 1 + registers.size() - i);
    }
}

// Writes entries of .eh_frame, each with a common part of its own.
class FrameWriter {
public:
    // Returns where the entry's instructions go; End() closes it.
    void Begin(const Function &function, const void *personality)
    {
        const size_t common = BeginPart(0);
        mOut.Put<uint8_t>(1); // the version
        mOut.PutBytes(std::as_bytes(std::span("zPLR")));
        mOut.PutUleb(1); // code alignment
        mOut.Put<uint8_t>(DATA_ALIGNMENT_SLEB);
        mOut.PutUleb(RETURN);
        mOut.PutUleb(1 + sizeof personality + 2);
        mOut.Put<uint8_t>(0); // the personality, and then all addresses, are absolute
        mOut.Put(personality);
        mOut.Put<uint16_t>(0);
        EndPart(common);
        mEntry = BeginPart(mOut.Size() + 4 - common);
        mOut.Put(function.start);
        mOut.Put(function.end - function.start);
        mOut.PutUleb(sizeof function.lsda);
        mOut.Put(function.lsda);
    }
    void End() { EndPart(mEntry); }
    Bytes &Instructions() { return mOut; }

    // The entries, which stay where they are, for the runtime to read.
    void *Finish()
    {
        mOut.Put<uint32_t>(0);
        auto *kept = new std::vector<std::byte>(std::move(mOut.Content()));
        return kept->data();
    }

private:
    size_t BeginPart(size_t toCommon)
    {
        const size_t start = mOut.Size();
        mOut.Put<uint32_t>(0); // the length, which End() fills in
        mOut.Put(static_cast<uint32_t>(toCommon));
        return start;
    }
    void EndPart(size_t start)
    {
        mOut.Pad();
        mOut.Set32(start, mOut.Size() - start - 4);
    }

    Bytes mOut;
    size_t mEntry = 0;
};

// Reads __unwind_info.
class UnwindInfo {
public:
    UnwindInfo(const Image &image, const Section &section) : mImage(image), mSection(section)
    {
        if (Header().version != DARWIN_UNWIND_SECTION_VERSION) {
            Refuse("__unwind_info has version %u", Header().version);
        }
    }

    std::vector<Function> Functions() const
    {
        std::vector<Function> functions;
        const auto *index = Array<macho::UnwindIndexEntry>(Header().indexSectionOffset);
        for (uint32_t i = 0; i + 1 < Header().indexCount; i++) {
            AddPage(functions, index[i], index[i + 1]);
        }
        return functions;
    }

    // Returns the personality function, which the C++ runtime calls for a frame, or nullptr.
    const void *Personality(uint32_t encoding) const
    {
        const uint32_t number = Part(encoding, DARWIN_UNWIND_PERSONALITY_MASK);
        if (number == 0) { return nullptr; }
        const auto *slots = Array<uint32_t>(Header().personalityArraySectionOffset);
        return *reinterpret_cast<void **>(mImage.At(slots[number - 1]));
    }

private:
    template <typename T> const T *Array(size_t offset) const
    {
        if (offset > mSection.size) { Refuse("__unwind_info is damaged"); }
        return reinterpret_cast<const T *>(mSection.start + offset);
    }

    const macho::UnwindHeader &Header() const { return *Array<macho::UnwindHeader>(0); }

    void AddPage(std::vector<Function> &functions, const macho::UnwindIndexEntry &entry,
                 const macho::UnwindIndexEntry &next) const
    {
        const uint32_t page = entry.secondLevelPagesSectionOffset;
        if (page == 0) { return; }
        const auto &header = *Array<macho::UnwindRegularPage>(page);
        if (header.kind == DARWIN_UNWIND_SECOND_LEVEL_REGULAR) {
            const auto *entries = Array<macho::UnwindRegularEntry>(page + header.entryPageOffset);
            for (uint32_t i = 0; i < header.entryCount; i++) {
                const bool isLast = i + 1 == header.entryCount;
                Add(functions, entries[i].functionOffset,
                    isLast ? next.functionOffset : entries[i + 1].functionOffset,
                    entries[i].encoding, entry, next);
            }
        } else if (header.kind == DARWIN_UNWIND_SECOND_LEVEL_COMPRESSED) {
            AddCompressed(functions, entry, next);
        } else {
            Refuse("a page of __unwind_info is of kind %u", header.kind);
        }
    }

    void AddCompressed(std::vector<Function> &functions, const macho::UnwindIndexEntry &entry,
                       const macho::UnwindIndexEntry &next) const
    {
        const uint32_t page = entry.secondLevelPagesSectionOffset;
        const auto &header = *Array<macho::UnwindCompressedPage>(page);
        const auto *entries = Array<uint32_t>(page + header.entryPageOffset);
        // The upper 8 bits number the encoding, the lower 24 are the function's offset.
        const auto start = [&](uint32_t i) {
            return entry.functionOffset + (entries[i] & 0xFFFFFF);
        };
        for (uint32_t i = 0; i < header.entryCount; i++) {
            Add(functions, start(i),
                i + 1 == header.entryCount ? next.functionOffset : start(i + 1),
                Encoding(header, page, entries[i] >> 24), entry, next);
        }
    }

    uint32_t Encoding(const macho::UnwindCompressedPage &header, uint32_t page,
                      uint32_t number) const
    {
        const uint32_t common = Header().commonEncodingsArrayCount;
        if (number < common) {
            return Array<uint32_t>(Header().commonEncodingsArraySectionOffset)[number];
        }
        return Array<uint32_t>(page + header.encodingsPageOffset)[number - common];
    }

    void Add(std::vector<Function> &functions, uint32_t start, uint32_t end, uint32_t encoding,
             const macho::UnwindIndexEntry &entry, const macho::UnwindIndexEntry &next) const
    {
        if (end <= start) { return; }
        const bool hasLsda = (encoding & DARWIN_UNWIND_HAS_LSDA) != 0;
        functions.push_back({mImage.At(start), mImage.At(end), encoding,
                             hasLsda ? Lsda(start, entry, next) : nullptr});
    }

    const std::byte *Lsda(uint32_t function, const macho::UnwindIndexEntry &entry,
                          const macho::UnwindIndexEntry &next) const
    {
        for (uint32_t at = entry.lsdaIndexArraySectionOffset; at < next.lsdaIndexArraySectionOffset;
             at += sizeof(macho::UnwindLsdaEntry)) {
            const auto &row = *Array<macho::UnwindLsdaEntry>(at);
            if (row.functionOffset == function) { return mImage.At(row.lsdaOffset); }
        }
        Refuse("a function's table of handlers is not in __unwind_info");
    }

    const Image &mImage;
    const Section &mSection;
};

uint64_t ReadUleb(const std::byte *&at)
{
    uint64_t value = 0;
    for (int shift = 0;; shift += 7) {
        const auto byte = static_cast<uint8_t>(*at++);
        value |= static_cast<uint64_t>(byte & 0x7F) << shift;
        if ((byte & 0x80) == 0) { return value; }
    }
}

uint32_t Read32(const std::byte *at)
{
    uint32_t value = 0;
    memcpy(&value, at, sizeof value);
    return value;
}

// The instructions of a common part of the image's own __eh_frame.
std::span<const std::byte> CommonInstructions(const std::byte *common)
{
    const std::byte *end = common + 4 + Read32(common);
    const auto *augmentation = reinterpret_cast<const char *>(common + 9);
    if (augmentation[0] != 'z') { Refuse("__eh_frame has augmentation %s", augmentation); }
    const std::byte *at = common + 9 + strlen(augmentation) + 1;
    ReadUleb(at); // code alignment
    if (static_cast<uint8_t>(*at) != DATA_ALIGNMENT_SLEB) {
        Refuse("__eh_frame is not aligned as ours");
    }
    at++;
    if (ReadUleb(at) != RETURN) { Refuse("__eh_frame has another return register"); }
    const uint64_t size = ReadUleb(at);
    return {at + size, end};
}

// A function whose frame compact unwind cannot encode has an entry in the image's own __eh_frame.
void CopyInstructions(Bytes &out, const Image &image, uint32_t offset)
{
    const Section *section = image.FindSection("__eh_frame");
    if (section == nullptr || offset >= section->size) { Refuse("__eh_frame has no such entry"); }
    const std::byte *entry = section->start + offset;
    const std::byte *end = entry + 4 + Read32(entry);
    constexpr size_t ADDRESSES = 2 * sizeof(uint64_t); // the function's start and size
    const std::byte *at = entry + 8 + ADDRESSES;
    const uint64_t size = ReadUleb(at);
    out.PutBytes(CommonInstructions(entry + 4 - Read32(entry + 4)));
    out.PutBytes({at + size, end});
}

void WriteInstructions(Bytes &out, const Image &image, const Function &function)
{
    switch (function.encoding & DARWIN_UNWIND_X86_64_MODE_MASK) {
    case DARWIN_UNWIND_X86_64_MODE_RBP_FRAME: return WriteFrameWithPointer(out, function.encoding);
    case DARWIN_UNWIND_X86_64_MODE_STACK_IMMD:
        return WriteFrameWithoutPointer(out, function, false);
    case DARWIN_UNWIND_X86_64_MODE_STACK_IND: return WriteFrameWithoutPointer(out, function, true);
    case DARWIN_UNWIND_X86_64_MODE_DWARF:
        return CopyInstructions(out, image,
                                function.encoding & DARWIN_UNWIND_X86_64_DWARF_SECTION_OFFSET);
    default: Refuse("compact unwind 0x%x is not known", function.encoding);
    }
}

} // namespace

void RegisterUnwinding(const Image &image)
{
    const Section *section = image.FindSection("__unwind_info");
    if (section == nullptr) { return; }
    const UnwindInfo info(image, *section);
    FrameWriter writer;
    for (const Function &function : info.Functions()) {
        if (function.encoding == 0) { continue; } // no exception passes through it
        writer.Begin(function, info.Personality(function.encoding));
        WriteInstructions(writer.Instructions(), image, function);
        writer.End();
    }
    __register_frame(writer.Finish());
}
