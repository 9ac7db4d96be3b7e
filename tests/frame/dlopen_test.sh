#!/usr/bin/env bash
# Opens the shared library late, in a process full of threads, and uses the per-thread free lists from each: their
# pointer is static thread-local storage, which must be to be had then too. dlopen_test.sh LIBRARY CC
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat >"$work/late.c" <<'C'
#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>

enum { kThreads = 32 };
static pthread_barrier_t started, opened;
static int (*create)(void*), (*release)(void*), (*destroy)(void*);
static void (*obtain)(void*, size_t, void**, char);

static void* use(void* unused)
{
    (void)unused;
    pthread_barrier_wait(&started); // this thread exists before the library is opened
    pthread_barrier_wait(&opened);
    void *first = 0, *again = 0;
    create(0);
    obtain(0, 100, &first, 2);
    if (!first) return (void*)"no block";
    memset(first, 1, 100);
    release(first);
    obtain(0, 100, &again, 2);
    const char* wrong = again == first ? 0 : "the list did not serve";
    release(again);
    destroy(0);
    return (void*)wrong;
}

int main(int argc, char** argv)
{
    (void)argc;
    pthread_t threads[kThreads];
    pthread_barrier_init(&started, 0, kThreads + 1);
    pthread_barrier_init(&opened, 0, kThreads + 1);
    for (int i = 0; i < kThreads; ++i) pthread_create(&threads[i], 0, use, 0);
    pthread_barrier_wait(&started);
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!library) return fprintf(stderr, "%s\n", dlerror()), 1;
    void (*manager)(unsigned char);
    *(void**)&manager = dlsym(library, "KemSdSetMemoryManager");
    *(void**)&create = dlsym(library, "ovCreateThreadAlloc");
    *(void**)&obtain = dlsym(library, "ovThreadAlloc");
    *(void**)&release = dlsym(library, "ovThreadFree");
    *(void**)&destroy = dlsym(library, "ovDestroyThreadAlloc");
    if (!manager || !create || !obtain || !release || !destroy) return fprintf(stderr, "%s\n", dlerror()), 1;
    manager(1);
    pthread_barrier_wait(&opened);
    int failures = 0;
    for (int i = 0; i < kThreads; ++i) {
        void* wrong;
        pthread_join(threads[i], &wrong);
        if (wrong) failures += fprintf(stderr, "thread %d: %s\n", i, (char*)wrong) > 0;
    }
    return failures != 0;
}
C
"$2" -std=c11 -D_GNU_SOURCE -Wall -o "$work/late" "$work/late.c" -ldl -pthread
"$work/late" "$1"
