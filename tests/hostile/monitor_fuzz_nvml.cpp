#include "monitor_fuzz_nvml.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <unordered_map>

#include "monitor_fuzz_input.h"

namespace monitor_fuzz {

namespace {

// The codes that mean something to the monitor or that drivers often give; an input can choose any other.
constexpr unsigned int kSuccess = 0;
constexpr unsigned int kInvalidArgument = 2;
constexpr unsigned int kCommonCodes[] = {0, 1, 2, 3, 4, 6, 7, 15, 999, 0xFFFFFFFF};

/// The most GPUs told. Discovery asks for every one of them, so a larger number is only a longer execution.
constexpr uint32_t kMostDevices = 4097;
/// The longest list that the monitor may have room for.
constexpr uint32_t kLongestList = 4096;
/// What one execution may cost, in list entries.
constexpr size_t kWork = 15000;
constexpr size_t kWorkPerHandle = 400;

[[noreturn]] void FailCall(EntryPoint name, const std::string& what) {
    Fail(std::string(kEntryPointNames[static_cast<size_t>(name)]) + ": " + what);
}

void RequireCall(bool bHolds, EntryPoint name, const char* what) {
    if (!bHolds) FailCall(name, what);
}

/// Gives back the room that a list query offers.
uint32_t RequireRoom(EntryPoint name, uint32_t offered) {
    RequireCall(offered > 0 && offered <= kLongestList, name, "called with room for none or for too many");
    return offered;
}

/// The bit of `mask` for the `turn`th time.
bool BitOf(uint8_t mask, uint64_t turn) {
    return (mask >> turn % 8 & 1) != 0;
}

uint32_t Unpoisoned(uint32_t value) {
    return value == kPoison ? value + 1 : value;
}

char Character(size_t position) {
    return static_cast<char>(kFirstCharacter + position % (kLastCharacter - kFirstCharacter + 1));
}

uint32_t HealthyValue(EntryPoint name, unsigned int selector) {
    switch (name) {
        case EntryPoint::nvmlDeviceGetArchitecture: return 8;
        case EntryPoint::nvmlDeviceGetClockInfo: return 300 * (selector + 1);
        case EntryPoint::nvmlDeviceGetPowerUsage: return 80000;
        case EntryPoint::nvmlDeviceGetEnforcedPowerLimit:
        case EntryPoint::nvmlDeviceGetPowerManagementLimit: return 250000;
        case EntryPoint::nvmlDeviceGetPowerManagementDefaultLimit: return 200000;
        case EntryPoint::nvmlDeviceGetPowerManagementLimitConstraints: return 100000;
        default: return 30 + selector;
    }
}

/// The bytes that `text` gets. Form: bit 0 leaves out the terminator, bit 1 makes the text empty, bit 2 writes behind
/// the terminator too.
void WriteText(const Answer& answer, char* text, size_t size) {
    const bool bTerminated = (answer.Form & 1) == 0;
    const bool bFilled = !bTerminated || (answer.Form & 4) != 0;
    const size_t wanted = answer.bHasValue ? answer.Value : 12;
    const size_t length = (answer.Form & 2) != 0 ? 0 : std::min<size_t>(wanted, size - 1);
    const size_t end = bFilled ? size : length;
    for (size_t i = 0; i < end; ++i) text[i] = Character(i + answer.Form);
    if (bTerminated) text[length] = '\0';
}

/// What an entry of a list is. Form: bit 0 makes all alike, bit 1 makes every other 0.
uint32_t ListEntry(const Answer& answer, uint32_t first, uint32_t position) {
    if ((answer.Form & 2) != 0 && position % 2 == 0) return 0;
    return Unpoisoned((answer.Form & 1) != 0 ? first : first + position * 15);
}

/// How many of `offered` entries a list query writes. Form: bit 2 leaves out half of them.
uint32_t WrittenEntries(const Answer& answer, uint32_t offered) {
    return (answer.Form & 4) != 0 ? offered / 2 : offered;
}

// ---- The functions that a lookup gives, by the shape of the call ----

template <EntryPoint Name>
unsigned int CallInit() {
    return Nvml().Init(Name);
}

template <EntryPoint Name>
unsigned int CallShutdown() {
    return Nvml().Shutdown(Name);
}

template <EntryPoint Name>
unsigned int CallCount(unsigned int* count) {
    return Nvml().TellCount(Name, count);
}

template <EntryPoint Name>
unsigned int CallHandle(unsigned int index, void** device) {
    return Nvml().TellHandle(Name, index, device);
}

template <EntryPoint Name>
unsigned int CallSystemText(char* text, unsigned int size) {
    return Nvml().TellText(Name, text, size);
}

template <EntryPoint Name>
unsigned int CallText(void* device, char* text, unsigned int size) {
    return Nvml().TellDeviceText(Name, device, text, size);
}

template <EntryPoint Name>
unsigned int CallPci(void* device, void* pci) {
    return Nvml().TellPci(Name, device, pci);
}

template <EntryPoint Name>
unsigned int CallValue(void* device, unsigned int* value) {
    return Nvml().TellValue(Name, device, 0, value);
}

template <EntryPoint Name>
unsigned int CallSelected(void* device, unsigned int selector, unsigned int* value) {
    return Nvml().TellValue(Name, device, selector, value);
}

template <EntryPoint Name>
unsigned int CallPair(void* device, unsigned int* first, unsigned int* second) {
    return Nvml().TellPair(Name, device, first, second);
}

template <EntryPoint Name>
unsigned int CallMask(void* device, unsigned long long* mask) {
    return Nvml().TellMask(Name, device, mask);
}

/// The record is two numbers.
template <EntryPoint Name>
unsigned int CallUtilization(void* device, unsigned int* utilization) {
    return Nvml().TellPair(Name, device, utilization, utilization == nullptr ? nullptr : utilization + 1);
}

template <EntryPoint Name>
unsigned int CallMemory(void* device, void* memory) {
    return Nvml().TellMemory(Name, device, memory);
}

template <EntryPoint Name>
unsigned int CallMemoryClocks(void* device, unsigned int* count, unsigned int* clocks) {
    return Nvml().TellMemoryClocks(Name, device, count, clocks);
}

template <EntryPoint Name>
unsigned int CallGraphicsClocks(void* device, unsigned int memory, unsigned int* count, unsigned int* clocks) {
    return Nvml().TellGraphicsClocks(Name, device, memory, count, clocks);
}

template <EntryPoint Name>
unsigned int CallProcesses(void* device, unsigned int* count, void* processes) {
    return Nvml().TellProcesses(Name, device, count, processes);
}

template <EntryPoint Name>
unsigned int CallLock(void* device, unsigned int lowest, unsigned int highest) {
    return Nvml().LockClocks(Name, device, lowest, highest);
}

template <EntryPoint Name>
unsigned int CallReset(void* device) {
    return Nvml().ResetClocks(Name, device);
}

template <EntryPoint Name>
unsigned int CallSetLimit(void* device, unsigned int milliwatts) {
    return Nvml().SetLimit(Name, device, milliwatts);
}

struct Export {
    EntryPoint Name;
    void* Function;
};

const std::unordered_map<std::string_view, Export>& Exports() {
    static const std::unordered_map<std::string_view, Export> kExports = {
#define MONITOR_FUZZ_EXPORT(name, shape) \
    {#name, {EntryPoint::name, reinterpret_cast<void*>(&Call##shape<EntryPoint::name>)}},
        MONITOR_FUZZ_ENTRY_POINTS(MONITOR_FUZZ_EXPORT)
#undef MONITOR_FUZZ_EXPORT
    };
    return kExports;
}

/// A library or a device: an address that nobody may look behind, and a new one each time.
void* Token(uint64_t kind, uint64_t generation, uint64_t index) {
    return reinterpret_cast<void*>(kind << 60 | generation << 36 | (index + 1) << 2);
}

}  // namespace

HostileNvml& Nvml() {
    static HostileNvml nvml;
    return nvml;
}

// ---- What the input chooses ----

void HostileNvml::Reset() {
    *this = HostileNvml();
    WorkLeft = kWork;
}

void HostileNvml::Append(EntryPoint name, const Answer& answer) {
    Of(name).Answers.push_back(answer);
}

void HostileNvml::Forget(EntryPoint name) {
    Of(name).Answers.clear();
    Of(name).NextAnswer = 0;
}

void HostileNvml::Hide(EntryPoint name, uint8_t hidden) {
    Of(name).Hidden = hidden;
    Of(name).Lookups = 0;
}

void HostileNvml::HideLibrary(uint8_t hidden) {
    LibraryHidden = hidden;
}

void HostileNvml::Confuse(uint32_t seed, uint8_t level) {
    RandomState = seed;
    Confusion = level;
}

// ---- What the fuzz target sees ----

void HostileNvml::BeginOperation() {
    for (Script& script : Scripts) {
        script.Calls = 0;
        script.Last.fill({});
    }
    MemoryClocks.clear();
    Pairs.clear();
    LockedGraphics.clear();
}

const Told& HostileNvml::Last(EntryPoint name, size_t selector) const {
    return Of(name).Last[selector];
}

unsigned int HostileNvml::Calls(EntryPoint name) const {
    return Of(name).Calls;
}

unsigned int HostileNvml::LastCode(EntryPoint name) const {
    return Of(name).LastCode;
}

// ---- The library ----

void* HostileNvml::Open(const char* file) {
    ++ActivityCount;
    Require(file != nullptr && std::string_view(file) == "libnvidia-ml.so.1", "a library of another name is opened");
    Require(Library == nullptr, "the library is opened while it is open");
    ++OpeningCount;
    DeviceCount = 0;
    if (BitOf(LibraryHidden, OpeningCount - 1)) return nullptr;
    Library = Token(1, OpeningCount, 0);
    return Library;
}

void HostileNvml::Close(void* library) {
    ++ActivityCount;
    Require(library != nullptr && library == Library, "a library is closed that is not open");
    // Only an NVML whose shutdown cannot be found may be closed without one.
    const Script& shutdown = Of(EntryPoint::nvmlShutdown);
    const bool bShutdownHidden = shutdown.Lookups > 0 && BitOf(shutdown.Hidden, shutdown.Lookups - 1);
    Require(!bInitialized || bShutdownHidden, "the library is closed without a shutdown");
    bInitialized = false;
    Handles.clear();
    bNullHandedOut = false;
    Library = nullptr;
}

void* HostileNvml::Lookup(void* library, const char* name) {
    ++ActivityCount;
    Require(library != nullptr && library == Library, "a name is looked up in a library that is not open");
    const auto found = Exports().find(name);
    if (found == Exports().end()) Fail(std::string("a name is looked up that does not exist: ") + name);
    Script& script = Of(found->second.Name);
    script.Last.fill({});
    return BitOf(script.Hidden, script.Lookups++) ? nullptr : found->second.Function;
}

// ---- Every call ----

uint32_t HostileNvml::Random() {
    RandomState += 0x9E3779B9;
    uint32_t bits = RandomState;
    bits = (bits ^ bits >> 16) * 0x85EBCA6B;
    bits = (bits ^ bits >> 13) * 0xC2B2AE35;
    return bits ^ bits >> 16;
}

Answer HostileNvml::MadeUpAnswer() {
    Answer answer;
    const uint32_t bits = Random();
    if ((bits & 3) == 0) answer.Code = kCommonCodes[Random() % std::size(kCommonCodes)];
    answer.bWrites = (bits >> 2 & 7) != 0;
    answer.Form = static_cast<uint8_t>(bits >> 8 & 15);
    answer.bHasValue = (bits >> 16 & 1) != 0;
    answer.Value = Unpoisoned(Random() >> (bits >> 17 & 31));
    answer.bHasCount = (bits >> 22 & 1) != 0;
    answer.Count = Random() >> (bits >> 23 & 31);
    return answer;
}

Answer HostileNvml::NextAnswer(Script* script) {
    if (!script->Answers.empty()) return script->Answers[script->NextAnswer++ % script->Answers.size()];
    if (Confusion != 0 && (Random() & 255) < Confusion) return MadeUpAnswer();
    return {};
}

Answer HostileNvml::BeginCall(EntryPoint name) {
    ++ActivityCount;
    RequireCall(Library != nullptr, name, "called after the library was closed");
    Script& script = Of(name);
    ++script.Calls;
    const Answer answer = NextAnswer(&script);
    script.LastCode = answer.Code;
    return answer;
}

Answer HostileNvml::BeginDeviceCall(EntryPoint name, void* device) {
    const Answer answer = BeginCall(name);
    RequireCall(bInitialized, name, "called while NVML is not initialized");
    if (device == nullptr && MayGetNull(name)) return answer;
    RequireCall(device != nullptr, name, "called with a null handle");
    RequireCall(Handles.count(device) != 0, name, "called with a handle that was not handed out");
    return answer;
}

bool HostileNvml::MayGetNull(EntryPoint name) const {
    switch (name) {
        case EntryPoint::nvmlDeviceGetName:
        case EntryPoint::nvmlDeviceGetUUID:
        case EntryPoint::nvmlDeviceGetVbiosVersion:
        case EntryPoint::nvmlDeviceGetPciInfo_v3:
        case EntryPoint::nvmlDeviceGetArchitecture:
        case EntryPoint::nvmlDeviceGetBAR1MemoryInfo:
        case EntryPoint::nvmlDeviceGetComputeRunningProcesses_v3:
        case EntryPoint::nvmlDeviceGetComputeRunningProcesses_v2:
        case EntryPoint::nvmlDeviceGetComputeRunningProcesses:
        case EntryPoint::nvmlDeviceGetGraphicsRunningProcesses_v3:
        case EntryPoint::nvmlDeviceGetGraphicsRunningProcesses_v2:
        case EntryPoint::nvmlDeviceGetGraphicsRunningProcesses: return bNullHandedOut;
        default: return false;
    }
}

unsigned int HostileNvml::Conclude(EntryPoint name, const Answer& answer, size_t selector, uint64_t first,
                                   uint64_t second) {
    using Outcome = Told::Outcome;
    Outcome said = Outcome::Failed;
    if (answer.Code == kSuccess) said = answer.bWrites ? Outcome::Spoke : Outcome::SaidNothing;
    Of(name).Last[selector] = {said, first, second};
    return answer.Code;
}

bool HostileNvml::Afford(size_t work) {
    if (work > WorkLeft) return false;
    WorkLeft -= work;
    return true;
}

// ---- Startup ----

unsigned int HostileNvml::Init(EntryPoint name) {
    const Answer answer = BeginCall(name);
    RequireCall(!bInitialized, name, "called while NVML is initialized");
    bInitialized = answer.Code == kSuccess;
    if (bInitialized) ++InitCount;
    return answer.Code;
}

unsigned int HostileNvml::Shutdown(EntryPoint name) {
    const Answer answer = BeginCall(name);
    RequireCall(bInitialized, name, "called while NVML is not initialized");
    bInitialized = false;
    Handles.clear();
    bNullHandedOut = false;
    return answer.Code;
}

unsigned int HostileNvml::TellCount(EntryPoint name, unsigned int* count) {
    const Answer answer = BeginCall(name);
    RequireCall(bInitialized, name, "called while NVML is not initialized");
    RequireCall(count != nullptr, name, "called without a place for the answer");
    const uint32_t devices = std::min(answer.bHasValue ? answer.Value : kHealthyDevices, kMostDevices);
    if (answer.bWrites) *count = devices;
    DeviceCount = answer.Code == kSuccess && answer.bWrites ? devices : 0;
    return answer.Code;
}

/// Form: bit 0 tells a null handle, bit 1 a new one each time. A value lets every GPU exist.
unsigned int HostileNvml::TellHandle(EntryPoint name, unsigned int index, void** device) {
    Answer answer = BeginCall(name);
    RequireCall(bInitialized, name, "called while NVML is not initialized");
    RequireCall(device != nullptr, name, "called without a place for the answer");
    const bool bExists = index < kHealthyDevices || (answer.bHasValue && Afford(kWorkPerHandle));
    if (!bExists) answer = {kInvalidArgument, false};
    Of(name).LastCode = answer.Code;
    if (!answer.bWrites) {
        bNullHandedOut = bNullHandedOut || (answer.Code == kSuccess && *device == nullptr);
        return answer.Code;
    }
    const uint64_t salt = (answer.Form & 2) != 0 ? ActivityCount << 16 : 0;
    *device = (answer.Form & 1) != 0 ? nullptr : Token(2, InitCount, index % 4096 + salt % (1ULL << 32));
    if (answer.Code != kSuccess) return answer.Code;
    if (*device != nullptr) Handles.insert(*device);
    bNullHandedOut = bNullHandedOut || *device == nullptr;
    return answer.Code;
}

unsigned int HostileNvml::TellText(EntryPoint name, char* text, unsigned int size) {
    const Answer answer = BeginCall(name);
    RequireCall(bInitialized, name, "called while NVML is not initialized");
    RequireCall(text != nullptr && size >= 96, name, "called without room for the longest text");
    if (answer.bWrites) WriteText(answer, text, size);
    return Conclude(name, answer);
}

unsigned int HostileNvml::TellDeviceText(EntryPoint name, void* device, char* text, unsigned int size) {
    const Answer answer = BeginDeviceCall(name, device);
    RequireCall(text != nullptr && size >= 96, name, "called without room for the longest text");
    if (answer.bWrites) WriteText(answer, text, size);
    return Conclude(name, answer);
}

/// Form: as of a text, for the full bus id; bit 3 leaves the full one empty.
unsigned int HostileNvml::TellPci(EntryPoint name, void* device, void* pci) {
    constexpr size_t kLegacyBytes = 16;
    constexpr size_t kRecordBytes = 68;
    constexpr size_t kFullOffset = 36;
    const Answer answer = BeginDeviceCall(name, device);
    RequireCall(pci != nullptr, name, "called without a place for the answer");
    if (!answer.bWrites) return Conclude(name, answer);
    char* const record = static_cast<char*>(pci);
    std::memset(record, Character(answer.Form), kRecordBytes);
    WriteText(answer, record, kLegacyBytes);
    WriteText(answer, record + kFullOffset, kRecordBytes - kFullOffset);
    if ((answer.Form & 8) != 0) record[kFullOffset] = '\0';
    return Conclude(name, answer);
}

// ---- Readings ----

unsigned int HostileNvml::TellValue(EntryPoint name, void* device, unsigned int selector, unsigned int* value) {
    const Answer answer = BeginDeviceCall(name, device);
    const unsigned int highest = name == EntryPoint::nvmlDeviceGetClockInfo        ? 3
                                 : name == EntryPoint::nvmlDeviceGetPcieThroughput ? 1
                                                                                   : 0;
    RequireCall(selector <= highest, name, "called with a selector that does not exist");
    RequireCall(value != nullptr, name, "called without a place for the answer");
    const uint32_t told = answer.bHasValue ? answer.Value : HealthyValue(name, selector);
    if (answer.bWrites) *value = told;
    return Conclude(name, answer, selector, told);
}

/// `Count` chooses the second number, which of a power range is the highest limit.
unsigned int HostileNvml::TellPair(EntryPoint name, void* device, unsigned int* first, unsigned int* second) {
    const Answer answer = BeginDeviceCall(name, device);
    RequireCall(first != nullptr && second != nullptr, name, "called without a place for the answer");
    const uint32_t toldFirst = answer.bHasValue ? answer.Value : HealthyValue(name, 0);
    const uint32_t toldSecond = answer.bHasCount ? Unpoisoned(answer.Count) : 3 * HealthyValue(name, 0);
    if (answer.bWrites) {
        *first = toldFirst;
        *second = toldSecond;
    }
    return Conclude(name, answer, 0, toldFirst, toldSecond);
}

unsigned int HostileNvml::TellMask(EntryPoint name, void* device, unsigned long long* mask) {
    const Answer answer = BeginDeviceCall(name, device);
    RequireCall(mask != nullptr, name, "called without a place for the answer");
    const uint64_t told = answer.bHasValue ? uint64_t{answer.Value} << (answer.Form & 31) : 4;
    if (answer.bWrites) *mask = told;
    return Conclude(name, answer, 0, told);
}

unsigned int HostileNvml::TellMemory(EntryPoint name, void* device, void* memory) {
    const Answer answer = BeginDeviceCall(name, device);
    RequireCall(memory != nullptr, name, "called without a place for the answer");
    const uint64_t total = answer.bHasValue ? uint64_t{answer.Value} << (answer.Form & 31) : 1ULL << 33;
    const uint64_t used = answer.bHasCount ? uint64_t{Unpoisoned(answer.Count)} << (answer.Form & 31) : total / 2;
    const uint64_t record[] = {total, total - used, used};
    if (answer.bWrites) std::memcpy(memory, record, sizeof record);
    return Conclude(name, answer, 0, used, total);
}

// ---- Lists ----

unsigned int HostileNvml::TellClockCount(const Answer& answer, unsigned int* count, uint32_t healthy) {
    Require(*count == 0, "a list is to be counted with room for more than nothing");
    if (!answer.bWrites) return answer.Code;
    *count = answer.bHasValue ? answer.Value : healthy;
    // A count above the bound costs nothing, because no list may follow it.
    if (*count <= kLongestList && !Afford(*count)) *count = std::min<uint32_t>(*count, 2);
    return answer.Code;
}

std::set<uint32_t> HostileNvml::WriteClocks(const Answer& answer, uint32_t first, unsigned int* count,
                                            unsigned int* clocks) {
    std::set<uint32_t> written;
    if (!answer.bWrites) return written;
    const uint32_t entries = WrittenEntries(answer, *count);
    for (uint32_t i = 0; i < entries; ++i) {
        clocks[i] = ListEntry(answer, first, i);
        written.insert(clocks[i]);
    }
    *count = answer.bHasCount ? answer.Count : entries;
    return written;
}

unsigned int HostileNvml::TellMemoryClocks(EntryPoint name, void* device, unsigned int* count, unsigned int* clocks) {
    const Answer answer = BeginDeviceCall(name, device);
    RequireCall(count != nullptr, name, "called without a place for the count");
    if (clocks == nullptr) return TellClockCount(answer, count, 2);
    const uint32_t offered = RequireRoom(name, *count);
    MemoryClocks = WriteClocks(answer, answer.bHasValue ? answer.Value : 405, count, clocks);
    // The monitor takes an entry that was left out for a clock of 0 MHz and asks what goes with it.
    if (WrittenEntries(answer, offered) < offered || !answer.bWrites) MemoryClocks.insert(0);
    if (answer.Code != kSuccess) MemoryClocks.clear();
    return answer.Code;
}

unsigned int HostileNvml::TellGraphicsClocks(EntryPoint name, void* device, unsigned int memory, unsigned int* count,
                                             unsigned int* clocks) {
    const Answer answer = BeginDeviceCall(name, device);
    RequireCall(count != nullptr, name, "called without a place for the count");
    RequireCall(MemoryClocks.count(memory) != 0, name, "called with a memory clock that was not listed");
    if (clocks == nullptr) return TellClockCount(answer, count, 3);
    RequireRoom(name, *count);
    const std::set<uint32_t> written = WriteClocks(answer, answer.bHasValue ? answer.Value : 300, count, clocks);
    if (answer.Code != kSuccess) return answer.Code;
    for (const uint32_t graphics : written) {
        if (graphics != 0) Pairs.emplace(static_cast<int>(graphics), static_cast<int>(memory));
    }
    return answer.Code;
}

/// Form: as of a list of clocks; bit 3 writes the 32 bytes per record that some drivers do.
unsigned int HostileNvml::TellProcesses(EntryPoint name, void* device, unsigned int* count, void* processes) {
    const Answer answer = BeginDeviceCall(name, device);
    RequireCall(count != nullptr, name, "called without a place for the count");
    if (processes == nullptr) {
        RequireCall(*count == 0, name, "asked for the count with room for more than nothing");
        if (answer.bWrites) *count = answer.bHasValue ? answer.Value : 2;
        return answer.Code;
    }
    const uint32_t offered = RequireRoom(name, *count);
    const uint32_t entries = answer.bWrites && Afford(offered) ? WrittenEntries(answer, offered) : 0;
    const size_t stride = (answer.Form & 8) != 0 ? 32 : 24;
    for (uint32_t i = 0; i < entries; ++i) {
        const uint64_t pid = ListEntry(answer, answer.bHasValue ? answer.Value : 1000, i);
        const uint64_t used = pid % 5 == 0 ? UINT64_MAX : pid % 7 << 20;
        uint64_t record[] = {pid, used, 0, 0};
        std::memcpy(static_cast<char*>(processes) + i * stride, record, stride);
    }
    if (answer.bWrites) *count = answer.bHasCount ? answer.Count : std::min<uint32_t>(entries, 2);
    return answer.Code;
}

// ---- Changes ----

unsigned int HostileNvml::LockClocks(EntryPoint name, void* device, unsigned int lowest, unsigned int highest) {
    const Answer answer = BeginDeviceCall(name, device);
    RequireCall(lowest == highest, name, "called with a range of clocks");
    const auto clock = static_cast<int>(lowest);
    if (name == EntryPoint::nvmlDeviceSetGpuLockedClocks) {
        const auto listed = Pairs.lower_bound({clock, INT32_MIN});
        RequireCall(listed != Pairs.end() && listed->first == clock, name, "called with a clock that is not listed");
        LockedGraphics.insert(lowest);
        return answer.Code;
    }
    const auto isListed = [&](uint32_t graphics) { return Pairs.count({static_cast<int>(graphics), clock}) != 0; };
    RequireCall(std::any_of(LockedGraphics.begin(), LockedGraphics.end(), isListed), name,
                "called with a clock that is not listed with the graphics clock");
    return answer.Code;
}

unsigned int HostileNvml::ResetClocks(EntryPoint name, void* device) {
    return BeginDeviceCall(name, device).Code;
}

unsigned int HostileNvml::SetLimit(EntryPoint name, void* device, unsigned int milliwatts) {
    const Answer answer = BeginDeviceCall(name, device);
    const Told& range = Last(EntryPoint::nvmlDeviceGetPowerManagementLimitConstraints);
    RequireCall(range.Said == Told::Outcome::Spoke, name, "called without a range");
    RequireCall(range.First <= milliwatts && milliwatts <= range.Second, name, "called with a limit out of the range");
    return answer.Code;
}

}  // namespace monitor_fuzz

// What the fuzzed monitor calls in the place of the dynamic loader.
extern "C" {

void* MonitorFuzzOpen(const char* file, int /*mode*/) {
    return monitor_fuzz::Nvml().Open(file);
}

int MonitorFuzzClose(void* library) {
    monitor_fuzz::Nvml().Close(library);
    return 0;
}

void* MonitorFuzzLookup(void* library, const char* name) {
    return monitor_fuzz::Nvml().Lookup(library, name);
}

}  // extern "C"
