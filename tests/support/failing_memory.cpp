#include "failing_memory.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "simulated_nvml.h"

using namespace failing_memory;

void* operator new(size_t bytes) {
    const bool bCounts = !bChecking && !simulated_nvml::SimulatedNvml::InsideCall();
    if (bCounts && AllocationsUntilFailure-- == 1) {
        bAllocationFailed = true;
        throw std::bad_alloc();
    }
    void* const memory = std::malloc(bytes);
    if (memory == nullptr) throw std::bad_alloc();
    // Not zero, so that a test notices bytes that were never written.
    return std::memset(memory, 0xA5, bytes);
}
// Sanitizers have one of their own, whose memory the functions below must not release.
void* operator new(size_t bytes, const std::nothrow_t&) noexcept {
    try {
        return operator new(bytes);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
