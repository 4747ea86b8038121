/* hashTable.c -- four threads count words in one table, without a lock. */
#include <pelago/hashTable.h>

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { THREADS = 4, ROUNDS = 10000 };

static const char *const WORDS[] = {"red", "green", "red", "blue"};

/* Counts are values: integers cast to pointers. */
static void Count(HashTable *table, const char *word)
{
    for (;;) {
        void *old = NULL;
        if (!HashTable_Lookup(table, word, &old)) {
            if (HashTable_Insert(table, word, (void *)(uintptr_t)1)) { return; }
        } else if (HashTable_ReplaceIfEqual(table, word, old, (void *)((uintptr_t)old + 1))) {
            return;
        }
        /* Another thread was faster: once more, from the count that it stored. */
    }
}

static void *Work(void *table)
{
    for (int i = 0; i < ROUNDS; i++) {
        Count(table, WORDS[i % 4]);
    }
    return NULL;
}

/* Receives each entry; 0 goes on to the next one. */
static int Add(const void *word, void *count, void *total)
{
    (void)word;
    *(uintptr_t *)total += (uintptr_t)count;
    return 0;
}

static int Run(HashTable *table)
{
    pthread_t threads[THREADS];
    int started = 0, error = 0;
    while (started < THREADS &&
           (error = pthread_create(&threads[started], NULL, Work, table)) == 0) {
        started++;
    }
    for (int i = 0; i < started; i++) {
        pthread_join(threads[i], NULL);
    }
    return error;
}

int main(void)
{
    /* A power of two, about as many as there will be words.  The keys are string literals, so the
     * table needs no copies of them: HASH_FLAG_COPYKEY is for keys that do not last. */
    HashTable *table = HashTable_Alloc(16, HASH_STRING_KEY | HASH_FLAG_ATOMIC, NULL);
    const int error = Run(table);
    if (error != 0) {
        fprintf(stderr, "no thread: %s\n", strerror(error));
        HashTable_Free(table);
        return EXIT_FAILURE;
    }
    void *red = NULL;
    if (HashTable_Lookup(table, "red", &red)) { printf("red: %u\n", (unsigned)(uintptr_t)red); }
    uintptr_t total = 0;
    HashTable_ForEach(table, Add, &total);
    printf("all: %u\n", (unsigned)total);
    HashTable_Free(table);
    return EXIT_SUCCESS;
}

/* In a shell:
 *
 *    $ ./hashTable
 *    red: 20000
 *    all: 40000
 */
