#include "support/test_heap.h"

#include <cstdlib>

namespace kvffmpeg::test {

Heap& heap() noexcept {
    thread_local Heap own;
    return own;
}

bool heapIsOurs() {
    heap().failAfter = 0;
    try {
        // By address, as others call them: inlined they would be ours whatever has replaced them.
        void* (*const volatile allocate)(std::size_t) = &operator new;
        void (*const volatile release)(void*) = &operator delete;
        release(allocate(1));
        heap().failAfter = -1;
        return false;
    } catch (const std::bad_alloc&) {
        return true;
    }
}

}  // namespace kvffmpeg::test

namespace {

using kvffmpeg::test::heap;

void* allocateOrNull(std::size_t size) noexcept {
    return std::malloc(size == 0 ? 1 : size);
}

void* allocateOrThrow(std::size_t size) {
    if (heap().recording) ++heap().requests;
    if (heap().failAfter == 0) {
        heap().failAfter = -1;
        throw std::bad_alloc();
    }
    if (heap().failAfter > 0) --heap().failAfter;
    if (void* block = allocateOrNull(size)) return block;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size) {
    return allocateOrThrow(size);
}
void* operator new[](std::size_t size) {
    if (heap().recording) {
        heap().arrayBytes = size;
        ++heap().arrayRequests;
    }
    return allocateOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocateOrNull(size);
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    if (heap().recording && block) ++heap().arrayReleases;
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    operator delete[](block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
