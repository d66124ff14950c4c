#include "support/MemoryShortage.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

// Plain thread-local data: reading it allocates nothing.
thread_local bool armed_here = false;
thread_local int skip_here = 0;
thread_local int refused_here = 0;

std::atomic<bool> armed_everywhere{false};
std::atomic<int> refused_everywhere{0};

bool must_refuse() noexcept {
    if (armed_everywhere) {
        ++refused_everywhere;
        return true;
    }
    if (!armed_here) return false;
    if (skip_here > 0) {
        --skip_here;
        return false;
    }
    ++refused_here;
    return true;
}

void* allocate(std::size_t size) noexcept {
    if (must_refuse()) return nullptr;
    return std::malloc(size != 0 ? size : 1);
}

void* allocate_or_throw(std::size_t size) {
    void* const memory = allocate(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

}  // namespace

namespace pztest {

MemoryShortage::MemoryShortage(int skip) {
    refused_here = 0;
    skip_here = skip;
    armed_here = true;
}

MemoryShortage::~MemoryShortage() {
    armed_here = false;
}

int MemoryShortage::Refused() const {
    return refused_here;
}

GeneralMemoryShortage::GeneralMemoryShortage() {
    refused_everywhere = 0;
    armed_everywhere = true;
}

GeneralMemoryShortage::~GeneralMemoryShortage() {
    armed_everywhere = false;
}

int GeneralMemoryShortage::Refused() const {
    return refused_everywhere;
}

}  // namespace pztest

// The whole process's, the library's calls included.
void* operator new(std::size_t size) {
    return allocate_or_throw(size);
}
void* operator new[](std::size_t size) {
    return allocate_or_throw(size);
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return allocate(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
    std::free(memory);
}
