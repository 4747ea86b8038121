// imageBind.cpp -- what dyld does with LC_DYLD_INFO_ONLY: pointers are moved, imports are bound.
#include "image.h"
#include "refuse.h"

#include <cstring>

namespace {

// Reads opcodes and their numbers, one after another.
class Opcodes {
public:
    Opcodes(const Image &image, uint32_t offset, uint32_t size)
        : mNext(image.file.data() + offset), mEnd(mNext + size)
    {
        if (offset > image.file.size() || size > image.file.size() - offset) {
            Refuse("the file ends within its bind opcodes");
        }
    }

    bool IsAtEnd() const { return mNext == mEnd; }

    uint8_t Byte()
    {
        if (mNext == mEnd) { Refuse("the bind opcodes end in the middle"); }
        return static_cast<uint8_t>(*mNext++);
    }

    uint64_t Uleb()
    {
        uint64_t value = 0;
        for (int shift = 0;; shift += 7) {
            const uint8_t byte = Byte();
            if (shift > 63) { Refuse("a number in the bind opcodes is too long"); }
            value |= static_cast<uint64_t>(byte & 0x7F) << shift;
            if ((byte & 0x80) == 0) { return value; }
        }
    }

    std::string_view Text()
    {
        const std::byte *start = mNext;
        while (Byte() != 0) {}
        return reinterpret_cast<const char *>(start);
    }

private:
    const std::byte *mNext, *mEnd;
};

// A place in the image that opcodes move along.
class Place {
public:
    explicit Place(const Image &image) : mImage(image) {}

    void Set(size_t segment, uint64_t offset)
    {
        if (segment >= mImage.segments.size()) { Refuse("there is no segment %zu", segment); }
        mSegment = &mImage.segments[segment];
        mOffset = offset;
    }

    void Move(uint64_t distance) { mOffset += distance; } // a negative distance wraps around

    uint64_t &Pointer() const
    {
        if (mSegment == nullptr || mSegment->size < sizeof(uint64_t) ||
            mOffset > mSegment->size - sizeof(uint64_t)) {
            Refuse("a pointer outside its segment is to be changed");
        }
        return *reinterpret_cast<uint64_t *>(mSegment->start + mOffset);
    }

private:
    const Image &mImage;
    const Segment *mSegment = nullptr;
    uint64_t mOffset = 0;
};

// Handles one pointer, and moves past it and the bytes to skip.
template <typename Change> void Repeat(Place &place, uint64_t times, uint64_t skip, Change change)
{
    for (uint64_t i = 0; i < times; i++) {
        change(place.Pointer());
        place.Move(sizeof(uint64_t) + skip);
    }
}

class Rebaser {
public:
    explicit Rebaser(const Image &image)
        : mSlide(static_cast<uint64_t>(image.slide)), mPlace(image),
          mOpcodes(image, image.dyldInfo.rebase_off, image.dyldInfo.rebase_size)
    {}

    void Run()
    {
        while (!mOpcodes.IsAtEnd()) {
            const uint8_t byte = mOpcodes.Byte();
            if ((byte & DARWIN_REBASE_OPCODE_MASK) == DARWIN_REBASE_OPCODE_DONE) { return; }
            Take(byte & DARWIN_REBASE_OPCODE_MASK, byte & DARWIN_REBASE_IMMEDIATE_MASK);
        }
    }

private:
    void Take(long long opcode, uint64_t immediate)
    {
        switch (opcode) {
        case DARWIN_REBASE_OPCODE_SET_TYPE_IMM:
            if (immediate != DARWIN_REBASE_TYPE_POINTER) { Refuse("not a pointer is to be moved"); }
            return;
        case DARWIN_REBASE_OPCODE_SET_SEGMENT_AND_OFFSET_ULEB:
            return mPlace.Set(immediate, mOpcodes.Uleb());
        case DARWIN_REBASE_OPCODE_ADD_ADDR_ULEB: return mPlace.Move(mOpcodes.Uleb());
        case DARWIN_REBASE_OPCODE_ADD_ADDR_IMM_SCALED:
            return mPlace.Move(immediate * sizeof(uint64_t));
        case DARWIN_REBASE_OPCODE_DO_REBASE_IMM_TIMES: return Rebase(immediate, 0);
        case DARWIN_REBASE_OPCODE_DO_REBASE_ULEB_TIMES: return Rebase(mOpcodes.Uleb(), 0);
        case DARWIN_REBASE_OPCODE_DO_REBASE_ADD_ADDR_ULEB: return Rebase(1, mOpcodes.Uleb());
        case DARWIN_REBASE_OPCODE_DO_REBASE_ULEB_TIMES_SKIPPING_ULEB: {
            const uint64_t times = mOpcodes.Uleb();
            return Rebase(times, mOpcodes.Uleb());
        }
        default: Refuse("rebase opcode 0x%llx is not known", opcode);
        }
    }

    void Rebase(uint64_t times, uint64_t skip)
    {
        Repeat(mPlace, times, skip, [this](uint64_t &pointer) { pointer += mSlide; });
    }

    uint64_t mSlide;
    Place mPlace;
    Opcodes mOpcodes;
};

class Binder {
public:
    Binder(const Image &image, uint32_t offset, uint32_t size, bool isLazy, const Resolve &resolve)
        : mPlace(image), mOpcodes(image, offset, size), mIsLazy(isLazy), mResolve(resolve)
    {}

    void Run()
    {
        while (!mOpcodes.IsAtEnd()) {
            const uint8_t byte = mOpcodes.Byte();
            const long long opcode = byte & DARWIN_BIND_OPCODE_MASK;
            // Among lazy pointers it ends one of them, not the list.
            if (opcode == DARWIN_BIND_OPCODE_DONE && !mIsLazy) { return; }
            if (opcode == DARWIN_BIND_OPCODE_DONE) { continue; }
            if (!SetSomething(opcode, byte & DARWIN_BIND_IMMEDIATE_MASK)) {
                BindSomething(opcode, byte & DARWIN_BIND_IMMEDIATE_MASK);
            }
        }
    }

private:
    bool SetSomething(long long opcode, uint64_t immediate)
    {
        switch (opcode) {
        // test_macho.py checks which library a symbol is from; the runner does not.
        case DARWIN_BIND_OPCODE_SET_DYLIB_ORDINAL_IMM:
        case DARWIN_BIND_OPCODE_SET_DYLIB_SPECIAL_IMM: return true;
        case DARWIN_BIND_OPCODE_SET_DYLIB_ORDINAL_ULEB: mOpcodes.Uleb(); return true;
        case DARWIN_BIND_OPCODE_SET_SYMBOL_TRAILING_FLAGS_IMM:
            mIsToBind = (immediate & DARWIN_BIND_SYMBOL_FLAGS_NON_WEAK_DEFINITION) == 0;
            mSymbol = mOpcodes.Text();
            return true;
        case DARWIN_BIND_OPCODE_SET_TYPE_IMM:
            if (immediate != DARWIN_BIND_TYPE_POINTER) { Refuse("not a pointer is to be bound"); }
            return true;
        case DARWIN_BIND_OPCODE_SET_ADDEND_SLEB:
            Refuse("%s is to be bound with an addend", std::string(mSymbol).c_str());
        case DARWIN_BIND_OPCODE_SET_SEGMENT_AND_OFFSET_ULEB:
            mPlace.Set(immediate, mOpcodes.Uleb());
            return true;
        case DARWIN_BIND_OPCODE_ADD_ADDR_ULEB: mPlace.Move(mOpcodes.Uleb()); return true;
        default: return false;
        }
    }

    void BindSomething(long long opcode, uint64_t immediate)
    {
        switch (opcode) {
        case DARWIN_BIND_OPCODE_DO_BIND: return Bind(1, 0);
        case DARWIN_BIND_OPCODE_DO_BIND_ADD_ADDR_ULEB: return Bind(1, mOpcodes.Uleb());
        case DARWIN_BIND_OPCODE_DO_BIND_ADD_ADDR_IMM_SCALED:
            return Bind(1, immediate * sizeof(uint64_t));
        case DARWIN_BIND_OPCODE_DO_BIND_ULEB_TIMES_SKIPPING_ULEB: {
            const uint64_t times = mOpcodes.Uleb();
            return Bind(times, mOpcodes.Uleb());
        }
        default: Refuse("bind opcode 0x%llx is not known", opcode);
        }
    }

    void Bind(uint64_t times, uint64_t skip)
    {
        void *address = mIsToBind ? mResolve(mSymbol) : nullptr;
        Repeat(mPlace, times, skip, [&](uint64_t &pointer) {
            if (mIsToBind) { pointer = reinterpret_cast<uint64_t>(address); }
        });
    }

    Place mPlace;
    Opcodes mOpcodes;
    bool mIsLazy;
    const Resolve &mResolve;
    std::string_view mSymbol;
    bool mIsToBind = true;
};

} // namespace

void RebaseImage(const Image &image) { Rebaser(image).Run(); }

void BindImage(const Image &image, const Resolve &resolve)
{
    const auto &info = image.dyldInfo;
    Binder(image, info.bind_off, info.bind_size, false, resolve).Run();
    Binder(image, info.lazy_bind_off, info.lazy_bind_size, true, resolve).Run();
    Binder(image, info.weak_bind_off, info.weak_bind_size, false, resolve).Run();
}
