// One heap of the floors: bins, fast bins, carving and coalescing by hand. The caller holds the heap's lock or owns it.
#pragma once

#include <kemsd/memory.h>
#include <stdlib.h>

#include <cstdint>

#include "support/floorlock.h"

namespace kemsd::bench {

using Heap = OV_MemHeap_T;
using Free = OV_MemBin_T;
using Used = OV_MemAllocBlock_T;

constexpr uint32_t kHeader = sizeof(Used);
constexpr uint32_t kSmallestFree = sizeof(Free);
constexpr uint32_t kLastBin = OV_MEM_BINS - 1;

constexpr uint32_t binIndex(uint32_t bytes)
{
    if (bytes <= 2048) return bytes / 128;
    return bytes < 32768 ? bytes / 2048 + 15 : kLastBin;
}

inline Free* at(void* block, int64_t offset) { return reinterpret_cast<Free*>(static_cast<char*>(block) + offset); }

// False: neither a fast bin nor bin k or one above it holds a block. Read without the lock.
inline bool mayServe(const OV_MemHeapHeader_T& h, uint32_t k)
{
    return relaxed(h.FastBinCount) != 0 || k + relaxed(h.BinMap[k]) <= kLastBin;
}

inline void setAbove(OV_BYTE_T* map, uint32_t k, uint32_t distance)
{
    for (uint32_t j = k; j-- > 0 && map[j] != 0;) setRelaxed(map[j], distance + (k - j));
}

inline void unlinkBlock(OV_MemHeapHeader_T& h, Free* x)
{
    const auto k = static_cast<uint32_t>(x->index);
    if (x->next == x) {
        const uint32_t distance = k == kLastBin ? 32 : h.BinMap[k + 1] + 1u;
        setRelaxed(h.BinMap[k], distance);
        setAbove(h.BinMap, k, distance);
        return;
    }
    if (h.Bin[k] == x) h.Bin[k] = x->next;
    x->prev->next = x->next;
    x->next->prev = x->prev;
}

inline void addBlock(OV_MemHeapHeader_T& h, Free* x, uint32_t k)
{
    if (x->MemHeap) abort();
    x->index = static_cast<OV_LONG_T>(k);
    if (h.BinMap[k] != 0) {
        setRelaxed(h.BinMap[k], 0);
        setAbove(h.BinMap, k, 0);
        x->next = x->prev = x;
        h.Bin[k] = x;
        return;
    }
    Free* head = h.Bin[k];
    x->next = head;
    x->prev = head->prev;
    head->prev->next = x;
    head->prev = x;
}

inline void takePlace(OV_MemHeapHeader_T& h, Free* start, Free* n)
{
    const auto k = static_cast<uint32_t>(n->index);
    start->index = n->index;
    if (n->next == n) {
        start->next = start->prev = start;
    } else {
        start->next = n->next;
        start->prev = n->prev;
        n->prev->next = start;
        n->next->prev = start;
    }
    if (h.Bin[k] == n) h.Bin[k] = start;
}

inline void linkBlock(OV_MemHeapHeader_T& h, Free* b)
{
    Free* start = b;
    uint32_t size = b->size;
    Free* p = b->prevsize != 0 ? at(b, -static_cast<int64_t>(b->prevsize)) : nullptr;
    if (p && p->MemHeap) p = nullptr;
    if (p) {
        start = p;
        size += p->size;
    }
    Free* n = at(start, size);
    if (reinterpret_cast<char*>(n) >= h.HeapEnd || n->MemHeap) n = nullptr;
    if (n) size += n->size;
    const uint32_t k = binIndex(size);
    if (!p) b->MemHeap = nullptr;
    if (!p && !n) {
        addBlock(h, b, k);
        return;
    }
    if (p && static_cast<uint32_t>(p->index) == k) {
        if (n) unlinkBlock(h, n);
    } else if (!n || static_cast<uint32_t>(n->index) != k) {
        if (p) unlinkBlock(h, p);
        if (n) unlinkBlock(h, n);
        addBlock(h, start, k);
    } else {
        if (p) unlinkBlock(h, p);
        takePlace(h, start, n);
    }
    start->size = size;
    Free* next = at(start, size);
    if (reinterpret_cast<char*>(next) < h.HeapEnd) next->prevsize = size;
}

inline Free* search(OV_MemHeapHeader_T& h, uint32_t need, uint32_t k)
{
    if (h.BinMap[k] == 0) {
        Free* head = h.Bin[k];
        Free* b = head;
        do {
            if (b->MemHeap) abort();
            if (b->size >= need) return h.Bin[k] = b;
            b = b->next;
        } while (b != head);
    }
    if (k == kLastBin) return nullptr;
    const uint32_t j = k + 1 + h.BinMap[k + 1];
    return j <= kLastBin ? h.Bin[j] : nullptr;
}

[[gnu::noinline]] inline void flush(OV_MemHeapHeader_T& h)
{
    for (Used*& list : h.FastBin) {
        for (Used* block = list; block;) {
            Used* next = static_cast<Used*>(block->marker);
            linkBlock(h, reinterpret_cast<Free*>(block));
            block = next;
        }
        list = nullptr;
    }
    setRelaxed(h.FastBinCount, 0);
}

inline void* carve(Heap* heap, Free* b, uint32_t need)
{
    OV_MemHeapHeader_T& h = heap->HeapHeader;
    Free* a = b;
    if (b->size < need + kSmallestFree) {
        unlinkBlock(h, b);
    } else {
        b->size -= need;
        a = at(b, b->size);
        a->size = need;
        a->prevsize = b->size;
        Free* next = at(a, need);
        if (reinterpret_cast<char*>(next) < h.HeapEnd) next->prevsize = need;
        const uint32_t k = binIndex(b->size);
        if (k < static_cast<uint32_t>(b->index)) {
            unlinkBlock(h, b);
            addBlock(h, b, k);
        }
    }
    Used* used = reinterpret_cast<Used*>(a);
    used->MemHeap = heap;
    used->marker = nullptr;
    return used + 1;
}

[[gnu::noinline]] inline void* allocateFromBins(Heap* heap, uint32_t request)
{
    OV_MemHeapHeader_T& h = heap->HeapHeader;
    const uint32_t need = request + kHeader;
    const uint32_t k = binIndex(need);
    Free* b = search(h, need, k);
    if (!b) [[unlikely]] {
        if (h.FastBinCount == 0) return nullptr;
        flush(h);
        b = search(h, need, k);
        if (!b) return nullptr;
    }
    return carve(heap, b, need);
}

// Whether a fast bin holds blocks of that capacity.
inline bool isShort(uint32_t request) { return request / 8 - 1 < OV_MEM_FASTBINS; }

inline void* allocateIn(Heap* heap, uint32_t request)
{
    OV_MemHeapHeader_T& h = heap->HeapHeader;
    const uint32_t f = request / 8 - 1;
    if (isShort(request)) {
        if (Used* block = h.FastBin[f]) {
            h.FastBin[f] = static_cast<Used*>(block->marker);
            setRelaxed(h.FastBinCount, h.FastBinCount - 1);
            block->marker = nullptr;
            return block + 1;
        }
    }
    return allocateFromBins(heap, request);
}

inline void releaseIn(Heap* heap, Used* block)
{
    OV_MemHeapHeader_T& h = heap->HeapHeader;
    const uint32_t f = (block->size - kHeader) / 8 - 1;
    if (isShort(block->size - kHeader)) {
        block->marker = h.FastBin[f];
        h.FastBin[f] = block;
        setRelaxed(h.FastBinCount, h.FastBinCount + 1);
    } else {
        linkBlock(h, reinterpret_cast<Free*>(block));
    }
}

// Makes one free block of a region whose lists are empty.
inline void makeWhole(Heap* heap, uint32_t bytes)
{
    OV_MemHeapHeader_T& h = heap->HeapHeader;
    h.HeapEnd = reinterpret_cast<char*>(heap) + bytes;
    Free* all = reinterpret_cast<Free*>(&heap->HeapBuffer);
    *all = {static_cast<uint32_t>(h.HeapEnd - reinterpret_cast<char*>(all)), 0, nullptr, all, all, kLastBin};
    h.Bin[kLastBin] = all;
    for (uint32_t i = 0; i < OV_MEM_BINS; i++) h.BinMap[i] = static_cast<OV_BYTE_T>(kLastBin - i);
}

} // namespace kemsd::bench
