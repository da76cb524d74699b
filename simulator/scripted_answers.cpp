#include "scripted_answers.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <tuple>

#include "simulated_nvml.h"

namespace simulated_nvml {

namespace {

/// The codes that clients distinguish or that drivers often give.
constexpr unsigned int kCommonCodes[] = {0, 1, 2, 3, 4, 6, 7, 15, 999, 0xFFFFFFFF};
/// Clients ask for every GPU, so a larger number only takes longer.
constexpr uint32_t kMostDevices = kLongestList + 1;

bool HasForm(const Answer& answer, int bit) {
    return (answer.Form >> bit & 1) != 0;
}

template <typename T>
T& OutputOf(void* output) {
    return *static_cast<T*>(output);
}

unsigned int Argument(const Call& call, size_t position) {
    return position < call.Values.size() ? static_cast<unsigned int>(call.Values.begin()[position].value_or(0)) : 0;
}

bool IsPair(Shape shape) {
    return shape == Shape::Pair || shape == Shape::Utilization;
}

bool IsHandle(Shape shape) {
    return shape == Shape::Handle || shape == Shape::NamedHandle;
}

/// Calls that start, end or change something, the one that cannot fail, and those that no board supports.
bool HasNoOutput(Shape shape) {
    return shape == Shape::Init || shape == Shape::FlaggedInit || shape == Shape::Shutdown ||
           shape == Shape::ErrorText || shape == Shape::Lock || shape == Shape::Reset || shape == Shape::SetLimit ||
           shape == Shape::Unsupported;
}

// ---- Writing what an answer says ----

/// The letters a to p, over and over.
char Letter(size_t position) {
    return static_cast<char>('a' + position % 16);
}

void WriteText(const Answer& answer, char* text, size_t size) {
    constexpr size_t kUsualLength = 12;
    const bool bTerminated = !HasForm(answer, 0);
    const size_t length = HasForm(answer, 1) ? 0 : std::min<size_t>(answer.Value.value_or(kUsualLength), size - 1);
    const size_t end = !bTerminated || HasForm(answer, 2) ? size : length;
    for (size_t i = 0; i < end; ++i) text[i] = Letter(i + answer.Form);
    if (bTerminated) text[length] = '\0';
}

void WritePci(const Answer& answer, const Call& call) {
    PciRecord record;
    std::memset(&record, Letter(answer.Form), sizeof record);
    WriteText(answer, record.BusIdLegacy, sizeof record.BusIdLegacy);
    WriteText(answer, record.BusId, sizeof record.BusId);
    if (HasForm(answer, 3)) record.BusId[0] = '\0';
    std::memcpy(call.Written.First, &record, RecordBytesOf(call.Name));
}

uint64_t Shifted(uint32_t value, const Answer& answer) {
    return uint64_t{value} << (answer.Form & 31);
}

void WriteMemory(const Answer& answer, MemoryRecord* memory) {
    if (answer.Value.has_value()) memory->TotalBytes = Shifted(*answer.Value, answer);
    memory->UsedBytes = answer.Count.has_value() ? Shifted(*answer.Count, answer) : memory->TotalBytes / 2;
    memory->FreeBytes = memory->TotalBytes - memory->UsedBytes;
}

void WriteEntry(const Answer& answer, const Call& call, uint32_t position) {
    const bool bProcesses = ShapeOf(call.Name) == Shape::Processes;
    uint32_t entry = answer.Value.value_or(bProcesses ? 1000 : 405) + (HasForm(answer, 0) ? 0 : position * 15);
    if (HasForm(answer, 1) && position % 2 == 0) entry = 0;
    if (!bProcesses) {
        static_cast<uint32_t*>(call.Written.Second)[position] = entry;
        return;
    }
    const size_t bytes = HasForm(answer, 3) ? 32 : RecordBytesOf(call.Name);
    const uint64_t used = entry % 5 == 0 ? UINT64_MAX : uint64_t{entry % 7} << 20;
    const uint64_t record[] = {entry, used, 0, 0};
    std::memcpy(static_cast<char*>(call.Written.Second) + position * bytes, record, bytes);
}

void WriteList(const Answer& answer, const Call& call, uint32_t room) {
    const uint32_t entries = HasForm(answer, 2) ? room / 2 : room;
    for (uint32_t i = 0; i < entries; ++i) WriteEntry(answer, call, i);
    auto& count = OutputOf<uint32_t>(call.Written.First);
    count = answer.Count.value_or(std::min(count, entries));
}

/// The values that a call has written or, where it changes something, was called with.
std::pair<uint64_t, uint64_t> ValuesOf(const Call& call) {
    void* const first = call.Written.First;
    switch (ShapeOf(call.Name)) {
        case Shape::Lock:
        case Shape::SetLimit: return {Argument(call, 0), Argument(call, 1)};
        case Shape::SystemValue: return {OutputOf<uint32_t>(first), 0};
        case Shape::Pair: return {OutputOf<uint32_t>(first), OutputOf<uint32_t>(call.Written.Second)};
        default: return {0, 0};
    }
}

// ---- What is wrong with a call ----

/// The last sensor, clock or counter that a call can ask for.
unsigned int HighestSelector(EntryPoint name) {
    switch (name) {
        case EntryPoint::nvmlDeviceGetClock:
        case EntryPoint::nvmlDeviceGetClockInfo:
        case EntryPoint::nvmlDeviceGetMaxClockInfo: return kClockVideo;
        case EntryPoint::nvmlDeviceGetTemperatureThreshold: return kThresholdSlowdown;
        case EntryPoint::nvmlDeviceGetPcieThroughput: return kPcieReceive;
        case EntryPoint::nvmlDeviceGetFanSpeed_v2: return UINT32_MAX;
        default: return kSensorGpu;
    }
}

std::optional<Complaint> ListComplaint(const Outputs& outputs) {
    if (outputs.First == nullptr) return Complaint{"without a place for the count", true};
    const auto room = OutputOf<uint32_t>(outputs.First);
    if (room != 0 && outputs.Second == nullptr) return Complaint{"with room for entries but no place for them", true};
    if (room == 0 && outputs.Second != nullptr) return Complaint{"with a place for entries but no room", false};
    if (room > kLongestList) return Complaint{"with room for more entries than any list has", false};
    return std::nullopt;
}

}  // namespace

std::optional<Complaint> ScriptedAnswers::Judge(const Call& call) const {
    constexpr unsigned int kLongestText = 96;
    const Outputs& outputs = call.Written;
    const Shape shape = ShapeOf(call.Name);
    if (HasNoOutput(shape)) return std::nullopt;
    if (shape == Shape::GraphicsClocks && bObserving && MemoryClocks.count(Argument(call, 0)) == 0) {
        return Complaint{"with a memory clock that was not listed", false};
    }
    if (IsList(call.Name)) return ListComplaint(outputs);
    if (outputs.First == nullptr || (IsPair(shape) && outputs.Second == nullptr)) {
        return Complaint{"without a place for the answer", true};
    }
    const bool bSelects = shape == Shape::Selected || shape == Shape::Clock;
    if (bSelects && Argument(call, 0) > HighestSelector(call.Name)) {
        return Complaint{"with a selector that does not exist", true};
    }
    const bool bText = shape == Shape::Text || shape == Shape::SystemText;
    if (bText && outputs.TextBytes < kLongestText) return Complaint{"without room for the longest text", false};
    return std::nullopt;
}

// ---- What the script says ----

void ScriptedAnswers::Forget(EntryPoint name) {
    Of(name).Answers.clear();
    Of(name).NextAnswer = 0;
}

void ScriptedAnswers::HideLookups(EntryPoint name, uint8_t pattern) {
    Of(name).Hidden = pattern;
    Of(name).Lookups = 0;
}

void ScriptedAnswers::Confuse(uint32_t seed, uint8_t level) {
    RandomState = seed;
    Confusion = level;
}

void ScriptedAnswers::BeginOperation() {
    bObserving = true;
    for (Script& script : Scripts) {
        script.Calls = 0;
        script.Last = {};
    }
    MemoryClocks.clear();
    Pairs.clear();
}

bool ScriptedAnswers::HidesLookup(EntryPoint name) {
    Script& script = Of(name);
    script.Last = {};
    return HasBit(script.Hidden, script.Lookups++);
}

// ---- Calls ----

std::optional<Answer> ScriptedAnswers::Next(EntryPoint name) {
    Script& script = Of(name);
    ++script.Calls;
    if (!script.Answers.empty()) return script.Answers[script.NextAnswer++ % script.Answers.size()];
    if (Confusion != 0 && (Random() & 255) < Confusion) return MakeUpAnswer();
    return std::nullopt;
}

Answer ScriptedAnswers::MakeUpAnswer() {
    Answer answer;
    const uint32_t bits = Random();
    if ((bits & 3) == 0) answer.Code = kCommonCodes[Random() % std::size(kCommonCodes)];
    answer.bWrites = (bits >> 2 & 7) != 0;
    answer.Form = static_cast<uint8_t>(bits >> 8 & 15);
    const uint32_t value = Random() >> (bits >> 17 & 31);
    const uint32_t count = Random() >> (bits >> 23 & 31);
    if ((bits >> 16 & 1) != 0) answer.Value = value;
    if ((bits >> 22 & 1) != 0) answer.Count = count;
    return answer;
}

uint32_t ScriptedAnswers::Random() {
    RandomState += 0x9E3779B9;
    uint32_t bits = RandomState;
    bits = (bits ^ bits >> 16) * 0x85EBCA6B;
    bits = (bits ^ bits >> 13) * 0xC2B2AE35;
    return bits ^ bits >> 16;
}

bool ScriptedAnswers::Afford(size_t work) {
    if (work > WorkLeft) return false;
    WorkLeft -= work;
    return true;
}

bool ScriptedAnswers::Acts(EntryPoint name, const Answer& answer) {
    const Shape shape = ShapeOf(name);
    // Whatever a shutdown answers, a client has no second try.
    if (shape == Shape::Shutdown) return true;
    return HasNoOutput(shape) ? answer.Code == kSuccess : answer.bWrites;
}

uint32_t ScriptedAnswers::RoomOf(const Call& call) {
    return IsList(call.Name) ? OutputOf<uint32_t>(call.Written.First) : 0;
}

void ScriptedAnswers::Write(const Call& call, const Answer& answer, uint32_t room) {
    const Outputs& outputs = call.Written;
    const Shape shape = ShapeOf(call.Name);
    const bool bEntries = IsList(call.Name) && outputs.Second != nullptr;
    if (bEntries) return WriteList(answer, call, room);
    if (IsList(call.Name)) return WriteListCount(call, answer);
    if (IsPair(shape) && answer.Count) OutputOf<uint32_t>(outputs.Second) = *answer.Count;
    switch (shape) {
        case Shape::SystemText:
        case Shape::Text: WriteText(answer, static_cast<char*>(outputs.First), outputs.TextBytes); break;
        case Shape::Pci: WritePci(answer, call); break;
        case Shape::Memory: WriteMemory(answer, static_cast<MemoryRecord*>(outputs.First)); break;
        case Shape::LongValue:
            if (answer.Value) OutputOf<unsigned long long>(outputs.First) = Shifted(*answer.Value, answer);
            break;
        default:
            if (!answer.Value || HasNoOutput(shape) || IsHandle(shape)) break;
            OutputOf<uint32_t>(outputs.First) =
                IsDeviceCount(call.Name) ? std::min(*answer.Value, kMostDevices) : *answer.Value;
    }
}

void ScriptedAnswers::WriteListCount(const Call& call, const Answer& answer) {
    auto& count = OutputOf<uint32_t>(call.Written.First);
    count = answer.Value.value_or(count);
    // A client that refuses a list for its length reads nothing, which costs nothing.
    const bool bListFollows = count <= kLongestList || ShapeOf(call.Name) == Shape::Processes;
    if (bListFollows && !Afford(std::min(count, kLongestList))) count = std::min<uint32_t>(count, 2);
}

void ScriptedAnswers::Observe(const Call& call, NvmlReturn code, bool bWrites, uint32_t room) {
    const Shape shape = ShapeOf(call.Name);
    LastCall& last = Of(call.Name).Last;
    last.Code = code;
    last.bAnswered = code == kSuccess && bWrites;
    std::tie(last.First, last.Second) = ValuesOf(call);
    if (IsDeviceCount(call.Name)) Devices = last.bAnswered ? static_cast<uint32_t>(last.First) : 0;
    if (shape == Shape::MemoryClocks || shape == Shape::GraphicsClocks) ObserveClocks(call, room);
}

/// Entries that were not written count too: they are still what the caller wrote there.
void ScriptedAnswers::ObserveClocks(const Call& call, uint32_t room) {
    const bool bMemory = ShapeOf(call.Name) == Shape::MemoryClocks;
    if (call.Written.Second == nullptr) return;
    if (bMemory) MemoryClocks.clear();
    if (Of(call.Name).Last.Code != kSuccess) return;
    const auto* const clocks = static_cast<const uint32_t*>(call.Written.Second);
    if (bMemory) {
        MemoryClocks.insert(clocks, clocks + room);
        return;
    }
    for (uint32_t i = 0; i < room; ++i) {
        if (clocks[i] != 0) Pairs.emplace(static_cast<int>(clocks[i]), static_cast<int>(Argument(call, 0)));
    }
}

}  // namespace simulated_nvml
