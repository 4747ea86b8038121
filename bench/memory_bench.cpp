// Compares and copies memory, and compares the library with its peers.
#include "util.h"
#include "workloads.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <memory>
#include <openssl/crypto.h>
#include <string>

namespace {

using Bytes = std::shared_ptr<std::string>;
Bytes Filled(size_t size) { return std::make_shared<std::string>(size, 'x'); }

// Compares byte by byte, the plainest way.
size_t CountByBytes(const char *a, const char *b, size_t size)
{
    size_t count = 0;
    for (size_t i = 0; i < size; i++) {
        count += a[i] != b[i];
        asm volatile("" : "+r"(count)); // keeps the compiler from vectorising the loop
    }
    return count;
}

void Compare(const char *name, size_t size, double goal)
{
    const Bytes a = Filled(size), b = Filled(size);
    const auto ours = [=] { return Util_MemDiffers(Opaque(a->data()), b->data(), a->size()); };
    const auto peer = [=] { return CRYPTO_memcmp(Opaque(a->data()), b->data(), a->size()); };
    const auto libc = [=] { return memcmp(Opaque(a->data()), b->data(), a->size()); };
    Workload(
        name, {{"CRYPTO_memcmp", goal}}, Repeat(ours),
        {{"CRYPTO_memcmp", Repeat(peer)}, {"memcmp, which may stop early", Repeat(libc), false}},
        !ours() && peer() == 0);
}

// Compares equal blocks with blocks whose first byte differs: both must take the same time.
void CompareSecrets(const char *name, size_t size)
{
    const Bytes a = Filled(size), same = Filled(size), other = Filled(size);
    other->front() = 'y';
    const auto equal = [=] { return Util_MemDiffers(Opaque(a->data()), same->data(), a->size()); };
    const auto first = [=] { return Util_MemDiffers(Opaque(a->data()), other->data(), a->size()); };
    Workload(name, {{"equal blocks", 1.01}}, Repeat(first), {{"equal blocks", Repeat(equal)}},
             first() && !equal());
}

void Count(const char *name, size_t size)
{
    const Bytes a = Filled(size), b = Filled(size);
    for (size_t i = 0; i < size; i += 10) {
        (*b)[i] = 'y';
    }
    const auto ours = [=] {
        size_t count;
        Util_CountMemDiff(Opaque(a->data()), b->data(), a->size(), &count);
        return count;
    };
    const auto bytes = [=] { return CountByBytes(Opaque(a->data()), b->data(), a->size()); };
    Workload(name, {{"a loop over the bytes", 0.1}}, Repeat(ours),
             {{"a loop over the bytes", Repeat(bytes)}}, ours() == bytes());
}

void Duplicate(const char *name, size_t size)
{
    const Bytes a = Filled(size);
    const auto ours = [=] { free(Util_Memdup(Opaque(a->data()), a->size())); };
    const auto peer = [=] { g_free(g_memdup2(Opaque(a->data()), a->size())); };
    void *copy = Util_Memdup(a->data(), size);
    const bool same = copy != nullptr && memcmp(copy, a->data(), size) == 0;
    free(copy);
    Workload(name, {{"g_memdup2", 0.9}}, Repeat(ours), {{"g_memdup2", Repeat(peer)}}, same);
}

} // namespace

int main(int argc, char **argv)
{
    Compare("Util_MemDiffers, 16 B", 16, 1.0);
    Compare("Util_MemDiffers, 64 B", 64, 0.15);
    Compare("Util_MemDiffers, 1000 B", 1000, 0.06);
    Compare("Util_MemDiffers, 64 KiB", 65536, 0.05);
    CompareSecrets("Util_MemDiffers, 64 B, first byte differs", 64);
    CompareSecrets("Util_MemDiffers, 64 KiB, first byte differs", 65536);
    Count("Util_CountMemDiff, 1000 B", 1000);
    Count("Util_CountMemDiff, 64 KiB", 65536);
    Duplicate("Util_Memdup, 8 B", 8);
    Duplicate("Util_Memdup, 24 B", 24);
    Duplicate("Util_Memdup, 64 B", 64);
    Duplicate("Util_Memdup, 256 B", 256);
    Duplicate("Util_Memdup, 4 KiB", 4096);
    return RunWorkloads(argc, argv);
}
