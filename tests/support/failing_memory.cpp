#include "failing_memory.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "simulated_nvml.h"

namespace failing_memory {

std::atomic<uint64_t> AllocationsUntilFailure{0};
std::atomic<bool> bAllocationFailed{false};
thread_local bool bChecking = false;

}  // namespace failing_memory

namespace {

using namespace failing_memory;

bool IsToFail() {
    if (bChecking || simulated_nvml::SimulatedNvml::InsideCall()) return false;
    uint64_t left = AllocationsUntilFailure;
    while (left > 0 && !AllocationsUntilFailure.compare_exchange_weak(left, left - 1)) {
    }
    return left == 1;
}

}  // namespace

void* operator new(size_t bytes) {
    if (IsToFail()) {
        bAllocationFailed = true;
        throw std::bad_alloc();
    }
    void* const memory = std::malloc(bytes);
    if (memory == nullptr) throw std::bad_alloc();
    // Not zero, so that a test notices what nobody has written.
    return std::memset(memory, 0xA5, bytes);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, size_t) noexcept {
    std::free(memory);
}
