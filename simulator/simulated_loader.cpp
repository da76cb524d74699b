// A dynamic loader that asks the simulator before it opens NVML or looks a name up, so that a test can take the library
// or single names away. It takes effect in the program that links the CMake target simulated_loader, on calls from its
// own code and its static libraries.

#include <dlfcn.h>

#include <atomic>
#include <cstring>

#include "simulated_nvml.h"

namespace {

constexpr const char* kNvmlLibrary = "libnvidia-ml.so.1";

/// Handle of the simulator's library once it was opened. It stays the same, because the simulator stays loaded.
std::atomic<void*> NvmlHandle{nullptr};

bool IsNvml(void* library) {
    return library != nullptr && library == NvmlHandle;
}

simulated_nvml::SimulatedNvml& Sim() {
    return simulated_nvml::SimulatedNvml::Get();
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker gives these names.

extern "C" {

void* __real_dlopen(const char* file, int flags);
void* __real_dlsym(void* library, const char* name);
int __real_dlclose(void* library);

void* __wrap_dlopen(const char* file, int flags) {
    if (file == nullptr || std::strcmp(file, kNvmlLibrary) != 0) return __real_dlopen(file, flags);
    if (!Sim().OnOpen(flags)) return nullptr;
    void* const library = __real_dlopen(file, flags);
    NvmlHandle = library;
    return library;
}

void* __wrap_dlsym(void* library, const char* name) {
    if (IsNvml(library) && !Sim().OnLookup(name).has_value()) return nullptr;
    return __real_dlsym(library, name);
}

int __wrap_dlclose(void* library) {
    if (IsNvml(library)) Sim().OnClose();
    return __real_dlclose(library);
}

}  // extern "C"

// NOLINTEND(bugprone-reserved-identifier)
