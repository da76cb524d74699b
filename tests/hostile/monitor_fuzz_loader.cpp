// What the fuzzed monitor calls in place of the dynamic loader: one library, which is the simulator. Lookups and
// openings are counted there; here an opening gets an address of its own, so that a stale one is noticed.

#include <dlfcn.h>

#include <string_view>

#include "monitor_fuzz_input.h"
#include "simulated_nvml.h"

namespace {

using monitor_fuzz::Require;
using simulated_nvml::SimulatedNvml;

uintptr_t Openings = 0;
void* Library = nullptr;

}  // namespace

extern "C" {

void* MonitorFuzzOpen(const char* file, int mode) {
    Require(file != nullptr && std::string_view(file) == "libnvidia-ml.so.1", "a library of another name is opened");
    Require(Library == nullptr, "the library is opened while it is open");
    if (SimulatedNvml::Get().OnOpen(mode)) Library = reinterpret_cast<void*>(++Openings << 4);
    return Library;
}

int MonitorFuzzClose(void* library) {
    Require(library != nullptr && library == Library, "a library is closed that is not open");
    SimulatedNvml::Get().OnClose();
    Library = nullptr;
    return 0;
}

void* MonitorFuzzLookup(void* library, const char* name) {
    Require(library != nullptr && library == Library, "a name is looked up in a library that is not open");
    return SimulatedNvml::Get().OnLookup(name).has_value() ? dlsym(RTLD_DEFAULT, name) : nullptr;
}

}  // extern "C"
