#include "alloc_counter.hpp"

#include <malloc.h>

#include <cstdlib>
#include <new>

namespace {

// Per thread, so that a measurement sees only the thread it runs on and needs
// no atomic operation on the allocation path. Zero-initialised: no dynamic
// initialisation, hence safe inside operator new at any point of a thread's
// life.
thread_local std::uint64_t allocations = 0;

void* allocate(std::size_t size) {
    ++allocations;
    if (void* block = std::malloc(size == 0 ? 1 : size)) {
        return block;
    }
    throw std::bad_alloc();
}

void* allocateNoThrow(std::size_t size) noexcept {
    ++allocations;
    return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

namespace orvikbench {

std::uint64_t threadAllocations() noexcept {
    return allocations;
}

void fixAllocatorThresholds() {
    mallopt(M_MMAP_THRESHOLD, 64 << 20);
    mallopt(M_TRIM_THRESHOLD, 256 << 20);
}

}  // namespace orvikbench

void* operator new(std::size_t size) {
    return allocate(size);
}

void* operator new[](std::size_t size) {
    return allocate(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocateNoThrow(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return allocateNoThrow(size);
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete[](void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}

void operator delete[](void* block, std::size_t) noexcept {
    std::free(block);
}

void operator delete(void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}

void operator delete[](void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
