// threadLocals.cpp -- thread-local variables as dyld has them.
// Each variable has a descriptor: a function, a key, and the offset in the thread's block.  The
// image calls the function with the descriptor in rdi; every register but rax, where the address
// comes back, must stay.
#include "image.h"
#include "refuse.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>

namespace {

struct Descriptor {
    void *function;
    uint64_t key;
    uint64_t offset;
};

std::span<const std::byte> sTemplate; // what each thread's block starts with
size_t sSize;
pthread_key_t sKey;

// After the destructors of the thread's variables, which run when the last of this key is set
// again.
void FreeBlock(void *block) { free(block); }

std::byte *MakeBlock()
{
    auto *block = static_cast<std::byte *>(aligned_alloc(64, (sSize + 63) / 64 * 64));
    if (block == nullptr) { Refuse("there is no memory for thread-local variables"); }
    memset(block, 0, sSize);
    memcpy(block, sTemplate.data(), sTemplate.size());
    pthread_setspecific(sKey, block);
    return block;
}

} // namespace

extern "C" void *FindThreadLocal(const Descriptor *descriptor)
{
    auto *block = static_cast<std::byte *>(pthread_getspecific(sKey));
    return (block != nullptr ? block : MakeBlock()) + descriptor->offset;
}

// Keeps every register that a called function may change, but for rax.
asm(R"(
    .text
    .globl ThreadLocalEntry
    .type ThreadLocalEntry, @function
ThreadLocalEntry:
    .cfi_startproc
    pushq %rbp
    .cfi_def_cfa_offset 16
    .cfi_offset %rbp, -16
    movq %rsp, %rbp
    .cfi_def_cfa_register %rbp
    pushq %rcx
    pushq %rdx
    pushq %rsi
    pushq %rdi
    pushq %r8
    pushq %r9
    pushq %r10
    pushq %r11
    subq $512, %rsp
    andq $-16, %rsp
    fxsave64 (%rsp)
    call FindThreadLocal@PLT
    fxrstor64 (%rsp)
    leaq -64(%rbp), %rsp
    popq %r11
    popq %r10
    popq %r9
    popq %r8
    popq %rdi
    popq %rsi
    popq %rdx
    popq %rcx
    popq %rbp
    .cfi_def_cfa %rsp, 8
    ret
    .cfi_endproc
    .size ThreadLocalEntry, .-ThreadLocalEntry
)");
extern "C" void ThreadLocalEntry();

// dyld gives each descriptor its own function, whatever it was bound to.
static void FillDescriptors(const Section &section)
{
    const std::span descriptors(reinterpret_cast<Descriptor *>(section.start),
                                section.size / sizeof(Descriptor));
    for (Descriptor &descriptor : descriptors) {
        descriptor.function = reinterpret_cast<void *>(&ThreadLocalEntry);
    }
}

void PrepareThreadLocals(const Image &image)
{
    const Section *variables = image.FindSection(DARWIN_S_THREAD_LOCAL_VARIABLES);
    if (variables == nullptr) { return; }
    if (image.FindSection(DARWIN_S_THREAD_LOCAL_INIT_FUNCTION_POINTERS) != nullptr) {
        Refuse("thread-local initialisers are not known");
    }
    const std::byte *first = nullptr, *end = nullptr;
    for (const Section &section : image.sections) {
        const bool isFilled = section.type == DARWIN_S_THREAD_LOCAL_REGULAR;
        if (!isFilled && section.type != DARWIN_S_THREAD_LOCAL_ZEROFILL) { continue; }
        if (first == nullptr) { first = section.start; }
        end = section.start + section.size;
        if (isFilled) { sTemplate = {first, end}; }
    }
    if (first == nullptr) { Refuse("there are thread-local variables without a template"); }
    sSize = static_cast<size_t>(end - first);
    FillDescriptors(*variables);
    if (pthread_key_create(&sKey, FreeBlock) != 0) { Refuse("there is no key for threads"); }
}
