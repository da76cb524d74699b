#include "commands/gpu_discovery.h"

#include <dlfcn.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <tuple>

#include "common/failure.h"
#include "common/simulate.h"
#include "gpu_feed/reading_text.h"

using namespace gpu_feed;

namespace {

constexpr const char* kOrSimulate = ", or add --simulate to see simulated GPUs.";

bool BeginsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char each) { return std::tolower(each); });
    return text;
}

/// Why the library cannot be loaded; empty when there is none, or it can.
std::string LoaderProblem() {
    if (void* library = dlopen(kNvmlLibrary, RTLD_LAZY)) {
        dlclose(library);
        return {};
    }
    std::string problem = dlerror();
    const std::string missing = std::string(kNvmlLibrary) + ": cannot open shared object file: No such file";
    return BeginsWith(problem, missing) ? "" : problem;
}

std::string Advice(const std::string& status) {
    if (status == "NVML unavailable / NVIDIA GPU monitoring disabled.") {
        const std::string problem = LoaderProblem();
        return problem.empty() ? std::string("Install the NVIDIA driver, which provides ") + kNvmlLibrary
                               : std::string(kNvmlLibrary) + " is there but cannot be loaded (" + problem +
                                     "): reinstall the NVIDIA driver";
    }
    if (status == "NVML initialization failed.") {
        return "The NVIDIA driver is installed but does not answer: load its kernel module, reboot if it was just "
               "updated";
    }
    return "The NVIDIA driver answers but has no GPU to show: check that the GPU is powered, seated and passed through "
           "to this system";
}

bool IsNumber(const std::string& selector) {
    return selector.find_first_not_of("0123456789") == std::string::npos;
}

bool IsNamed(const GpuDeviceInfo& gpu, const std::string& selector) {
    if (IsNumber(selector)) return std::to_string(gpu.Index) == selector;
    const std::string uuid = Lower(gpu.Uuid);
    return BeginsWith(uuid, Lower(selector)) || BeginsWith(uuid, "gpu-" + Lower(selector));
}

/// A PCI address as NVML and the kernel both write it.
std::string CommonAddress(const std::string& address) {
    return Lower(address.substr(std::min(address.find_first_not_of('0'), address.size())));
}

/// How many GPUs the driver counts. The monitor, which must have started NVML, gives only those that can be read. 0
/// when the driver does not say it.
unsigned int CountOfDriver() {
    unsigned int count = 0;
    void* library = dlopen(kNvmlLibrary, RTLD_LAZY | RTLD_NOLOAD);
    if (library == nullptr) return 0;
    void* symbol = dlsym(library, "nvmlDeviceGetCount_v2");
    if (symbol == nullptr) symbol = dlsym(library, "nvmlDeviceGetCount");
    const auto getCount = reinterpret_cast<int (*)(unsigned int*)>(symbol);
    if (getCount == nullptr || getCount(&count) != 0) count = 0;
    dlclose(library);
    return count;
}

/// The PCI addresses of the GPUs that the kernel's NVIDIA driver has.
std::vector<std::string> AddressesOfDriver() {
    std::vector<std::string> addresses;
    std::error_code unreadable;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/bus/pci/drivers/nvidia", unreadable)) {
        std::string deviceClass;
        std::ifstream(entry.path() / "class") >> deviceClass;
        const bool bDisplay = BeginsWith(deviceClass, "0x03");
        if (bDisplay) addresses.push_back(entry.path().filename());
    }
    return addresses;
}

}  // namespace

void RequireDriver(bool bAvailable, const std::string& status) {
    if (bAvailable) return;
    // The simulator has printed on standard error what is wrong with it.
    throw Failure(IsNvmlSimulated() ? status : status + '\n' + Advice(status) + kOrSimulate);
}

std::string SelectorError(const std::string& selector) {
    const auto isOfName = [](unsigned char character) { return std::isalnum(character) != 0 || character == '-'; };
    const bool bName = !selector.empty() && selector.front() != '-' && Lower(selector) != "gpu-" &&
                       std::all_of(selector.begin(), selector.end(), isOfName);
    return bName ? "" : "'" + selector + "' is neither the index nor the UUID of a GPU";
}

size_t SelectGpu(const std::vector<GpuDeviceInfo>& gpus, const std::string& selector) {
    const auto isNamed = [&selector](const GpuDeviceInfo& gpu) { return IsNamed(gpu, selector); };
    const auto found = std::find_if(gpus.begin(), gpus.end(), isNamed);
    if (found != gpus.end() && std::none_of(found + 1, gpus.end(), isNamed)) {
        return static_cast<size_t>(found - gpus.begin());
    }
    std::string sentence =
        (found == gpus.end() ? "There is no GPU " : "Several GPUs have a UUID that begins with ") + selector;
    const char* separator = ". GPUs here: ";
    for (const GpuDeviceInfo& gpu : gpus) {
        sentence += separator + (IsNumber(selector) ? std::to_string(gpu.Index) : OrDash(Printable(gpu.Uuid)));
        separator = ", ";
    }
    throw Failure(sentence + '.', kExitUsage);
}

std::vector<GpuDeviceInfo> DiscoverGpus(const std::string& selector, PatientMonitor* monitor) {
    const auto [bAvailable, status, devices] = monitor->Ask([](NvmlGpuMonitor* asked) {
        // A cheap query starts NVML; its answer is not needed.
        GpuPowerCapabilities ignored;
        asked->GetPowerCapabilities(0, &ignored);
        std::vector<GpuDeviceInfo> found;
        for (const GpuTelemetryHistory& gpu : asked->Snapshot()) found.push_back(gpu.Device);
        return std::tuple(asked->IsAvailable(), asked->Status(), found);
    });
    RequireDriver(bAvailable, status);
    if (selector.empty()) return devices;
    return {devices[SelectGpu(devices, selector)]};
}

std::vector<std::string> UnreadableGpus(const std::vector<GpuDeviceInfo>& found, PatientMonitor* monitor) {
    const unsigned int count = monitor->Ask([](NvmlGpuMonitor* /*asked*/) { return CountOfDriver(); });
    std::vector<std::string> sentences;
    for (unsigned int index = 0; index < count; ++index) {
        const auto isIt = [index](const GpuDeviceInfo& gpu) { return gpu.Index == index; };
        if (std::any_of(found.begin(), found.end(), isIt)) continue;
        sentences.push_back("GPU " + std::to_string(index) +
                            " is missing: the driver counts it, but it cannot be read. It may be lost.");
    }
    return sentences;
}

std::vector<std::string> UnlistedGpus(const std::vector<GpuDeviceInfo>& found) {
    std::vector<std::string> sentences;
    if (IsNvmlSimulated()) return sentences;
    for (const std::string& address : AddressesOfDriver()) {
        const auto isThere = [&address](const GpuDeviceInfo& gpu) {
            return CommonAddress(gpu.PciBusId) == CommonAddress(address);
        };
        if (std::any_of(found.begin(), found.end(), isThere)) continue;
        sentences.push_back("The NVIDIA driver also has a GPU at PCI address " + address +
                            ", which is not listed: it may be lost, or not given to this container.");
    }
    return sentences;
}
