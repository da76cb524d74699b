// A recording: what `gpu_monitor stream --csv` and `watch --log` wrote, as boards.

#include "recording.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <tuple>
#include <utility>

#include "board_model.h"

namespace simulated_nvml {

namespace {

using Row = RecordedGpu::Row;

/// A day of four GPUs that are recorded once per second. To read more would take longer than some clients wait.
constexpr size_t kMostLines = 400000;
constexpr size_t kMostLineBytes = 4096;
/// Clients have no room for longer names and UUIDs.
constexpr size_t kMostTextBytes = 95;
constexpr const char* kDamaged = "is cut off or damaged";
/// A gap is longer than so many usual distances of two rows.
constexpr int64_t kGapDistances = 3;
constexpr int64_t kLongestIntervalMs = 10000;
/// How long all boards stay lost where no GPU was recorded.
constexpr int64_t kLongestSilenceMs = 30000;

// ---- The columns ----

/// How many of NVML's units a column's unit has; `kLong` is for whole numbers of 64 bits.
constexpr double kLong = 0.0;
constexpr double kWhole = 1.0;
constexpr double kWatts = 1000.0;
constexpr double kMiB = 1024.0;

/// Where the values of a row go.
using Destination = std::tuple<Board*, Readings*, BoardSettings*>;

/// A column, the query that gives its value, with its selector if it has one, and where the board keeps it.
struct Column {
    const char* Name;
    EntryPoint Query;
    void (*Put)(uint64_t value, const Destination& to);
    double Scale;
    std::optional<unsigned int> Selector;
};

template <typename Value, typename Owner>
Value& PlaceOf(Value Owner::*member, const Destination& to) {
    return std::get<Owner*>(to)->*member;
}

template <auto Member>
constexpr Column Of(const char* name, EntryPoint query, double scale = kWhole,
                    std::optional<unsigned int> selector = std::nullopt) {
    constexpr auto kPut = [](uint64_t value, const Destination& to) {
        PlaceOf(Member, to) = static_cast<std::decay_t<decltype(PlaceOf(Member, to))>>(value);
    };
    return {name, query, kPut, scale, selector};
}

using B = Board;
using R = Readings;
using S = BoardSettings;
using E = EntryPoint;
constexpr const char* kLimitReasons = "performance_limit_reasons";
/// A value that several queries give has a line for each.
constexpr Column kColumnTable[] = {
    Of<&R::GpuPercent>("gpu_utilization_percent", E::nvmlDeviceGetUtilizationRates),
    Of<&R::MemoryPercent>("memory_utilization_percent", E::nvmlDeviceGetUtilizationRates),
    Of<&R::EncoderPercent>("encoder_utilization_percent", E::nvmlDeviceGetEncoderUtilization),
    Of<&R::DecoderPercent>("decoder_utilization_percent", E::nvmlDeviceGetDecoderUtilization),
    Of<&R::VramUsedBytes>("vram_used_bytes", E::nvmlDeviceGetMemoryInfo, kLong),
    Of<&B::VramTotalBytes>("vram_total_bytes", E::nvmlDeviceGetMemoryInfo, kLong),
    Of<&R::Bar1UsedBytes>("bar1_used_bytes", E::nvmlDeviceGetBAR1MemoryInfo, kLong),
    Of<&B::Bar1TotalBytes>("bar1_total_bytes", E::nvmlDeviceGetBAR1MemoryInfo, kLong),
    Of<&R::PowerMilliwatts>("power_watts", E::nvmlDeviceGetPowerUsage, kWatts),
    Of<&S::PowerLimitMilliwatts>("power_limit_watts", E::nvmlDeviceGetEnforcedPowerLimit, kWatts),
    Of<&S::PowerLimitMilliwatts>("power_limit_watts", E::nvmlDeviceGetPowerManagementLimit, kWatts),
    Of<&B::DefaultPowerLimitMilliwatts>("default_power_limit_watts", E::nvmlDeviceGetPowerManagementDefaultLimit,
                                        kWatts),
    Of<&B::MinimumPowerLimitMilliwatts>("minimum_power_limit_watts", E::nvmlDeviceGetPowerManagementLimitConstraints,
                                        kWatts),
    Of<&B::MaximumPowerLimitMilliwatts>("maximum_power_limit_watts", E::nvmlDeviceGetPowerManagementLimitConstraints,
                                        kWatts),
    Of<&R::TemperatureC>("temperature_c", E::nvmlDeviceGetTemperature, kWhole, kSensorGpu),
    Of<&R::FanPercent>("fan_percent", E::nvmlDeviceGetFanSpeed),
    Of<&R::GraphicsMHz>("graphics_clock_mhz", E::nvmlDeviceGetClockInfo, kWhole, kClockGraphics),
    Of<&R::SmMHz>("sm_clock_mhz", E::nvmlDeviceGetClockInfo, kWhole, kClockSm),
    Of<&R::MemoryMHz>("memory_clock_mhz", E::nvmlDeviceGetClockInfo, kWhole, kClockMemory),
    Of<&R::VideoMHz>("video_clock_mhz", E::nvmlDeviceGetClockInfo, kWhole, kClockVideo),
    Of<&R::PerformanceState>("performance_state", E::nvmlDeviceGetPerformanceState),
    Of<&R::PcieGeneration>("pcie_generation", E::nvmlDeviceGetCurrPcieLinkGeneration),
    Of<&R::PcieWidth>("pcie_width", E::nvmlDeviceGetCurrPcieLinkWidth),
    Of<&R::PcieReceiveKiBPerSecond>("pcie_receive_mib_per_second", E::nvmlDeviceGetPcieThroughput, kMiB, kPcieReceive),
    Of<&R::PcieTransmitKiBPerSecond>("pcie_transmit_mib_per_second", E::nvmlDeviceGetPcieThroughput, kMiB,
                                     kPcieTransmit),
    Of<&R::LimitReasons>(kLimitReasons, E::nvmlDeviceGetCurrentClocksThrottleReasons, kLong),
};
static_assert(std::size(kColumnTable) == RecordedGpu::kColumns);
static_assert(RecordedGpu::kColumns <= std::numeric_limits<uint32_t>::digits);

constexpr uint32_t BitOf(size_t column) {
    return uint32_t{1} << column;
}

/// A bit for each column that `isWanted`.
template <typename IsWanted>
uint32_t ColumnsWith(IsWanted isWanted) {
    uint32_t bits = 0;
    for (size_t i = 0; i < std::size(kColumnTable); ++i) bits |= isWanted(kColumnTable[i]) ? BitOf(i) : 0;
    return bits;
}

uint32_t ColumnsNamed(std::string_view name) {
    return ColumnsWith([name](const Column& column) { return column.Name == name; });
}

// ---- Fields ----

/// The fields of a line; empty where a quote is left open.
std::vector<std::string> FieldsOf(const std::string& line) {
    std::vector<std::string> fields(1);
    bool bQuoted = false;
    for (size_t at = 0; at < line.size(); ++at) {
        const size_t end = std::min(line.find_first_of(bQuoted ? "\"" : "\",", at), line.size());
        fields.back().append(line, at, end - at);
        at = end;
        if (line[at] == ',') {
            fields.emplace_back();
        } else if (line[at] == '"' && bQuoted && line[at + 1] == '"') {
            fields.back() += line[++at];
        } else if (line[at] == '"') {
            bQuoted = !bQuoted;
        }
    }
    return bQuoted ? std::vector<std::string>() : fields;
}

template <typename Number>
std::optional<Number> NumberIn(std::string_view text) {
    Number number{};
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && rest == end ? std::optional<Number>(number) : std::nullopt;
}

/// A value in NVML's unit. A whole number that no driver should give may be recorded as one below zero.
std::optional<uint64_t> ValueIn(std::string_view text, double scale) {
    if (scale == kLong) {
        const auto number = NumberIn<int64_t>(text);
        return number.has_value() ? static_cast<uint64_t>(*number) : NumberIn<uint64_t>(text);
    }
    constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
    const double value = NumberIn<double>(text).value_or(kNone) * scale;
    const double lowest = scale == kWhole ? std::numeric_limits<int32_t>::min() : 0.0;
    if (!(value >= lowest && value <= std::numeric_limits<uint32_t>::max())) return std::nullopt;
    return static_cast<uint64_t>(std::llround(value));
}

/// Milliseconds of the system clock that are written as 2026-01-31T12:00:00.000Z.
std::optional<int64_t> MomentIn(const std::string& text) {
    tm utc{};
    const char* rest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S.", &utc);
    if (rest == nullptr) return std::nullopt;
    const std::string_view fraction(rest, static_cast<size_t>(text.data() + text.size() - rest));
    if (fraction.size() != 4 || fraction.back() != 'Z') return std::nullopt;
    const auto milliseconds = NumberIn<uint16_t>(fraction.substr(0, 3));
    const int day = utc.tm_mday;
    const int64_t seconds = timegm(&utc);
    // A day that its month does not have has become one of the next month.
    if (!milliseconds || utc.tm_mday != day) return std::nullopt;
    return seconds * 1000 + *milliseconds;
}

// ---- The file ----

[[noreturn]] void Fail(const std::string& why) {
    throw std::invalid_argument(why);
}

struct Gpu {
    std::string Name;
    std::string Uuid;
    unsigned int Index = 0;
    std::vector<Row> Rows;
    /// How long it usually is from row to row; with changing intervals, the longest of them.
    int64_t UsualMs = 1000;
};

class Reader {
public:
    explicit Reader(const std::string& path) {
        std::error_code error;
        const std::filesystem::file_status status = std::filesystem::status(path, error);
        if (!std::filesystem::exists(status)) Fail(error.message());
        // Opening a pipe would wait for its other end.
        if (!std::filesystem::is_regular_file(status)) Fail("it is no regular file");
        File.open(path, std::ios::binary);
        if (!File.is_open()) Fail(std::generic_category().message(errno));
    }

    /// The GPUs with their rows in the order of the file.
    std::vector<Gpu> Read() {
        std::string heading;
        if (!ReadLine(&heading)) Fail("it is empty");
        ReadHeading(heading);
        // A recording that was appended to another one brings its heading.
        for (std::string line; ReadLine(&line);) {
            if (line != heading) ReadRow(FieldsOf(line));
        }
        if (Gpus.empty()) Fail("it has no readings");
        return std::move(Gpus);
    }

private:
    [[noreturn]] void FailHere(const std::string& why) const { Fail("line " + std::to_string(LineNumber) + ' ' + why); }

    /// The next line without its line break; false at the end.
    bool ReadLine(std::string* line) {
        char text[kMostLineBytes];
        File.getline(text, sizeof text);
        if (File.eof() && File.gcount() == 0) return false;
        if (++LineNumber > kMostLines) Fail("it has more than " + std::to_string(kMostLines) + " lines");
        if (!File.good()) FailHere(kDamaged);
        line->assign(text, static_cast<size_t>(File.gcount()) - 1);
        if (line->find('\0') != std::string::npos) FailHere(kDamaged);
        // Mail programs and editors of other systems write CRLF.
        if (!line->empty() && line->back() == '\r') line->pop_back();
        return true;
    }

    void ReadHeading(const std::string& heading) {
        const std::set<std::string> others = {"time", "uuid", "index", "name", "frame_time_ms", "performance_limits"};
        for (const std::string& name : FieldsOf(heading)) {
            const bool bKnown = others.count(name) != 0 || ColumnsNamed(name) != 0;
            if (!bKnown) Fail("its first line names other columns than a recording has");
            if (!Places.emplace(name, Places.size()).second) Fail("its first line names a column twice");
        }
        for (const char* needed : {"time", "uuid", "index"}) {
            if (Places.count(needed) == 0) Fail(std::string("it has no column ") + needed);
        }
        for (const Column& column : kColumnTable) {
            const auto place = Places.find(column.Name);
            Sources.push_back(place != Places.end() ? std::optional<size_t>(place->second) : std::nullopt);
        }
    }

    void ReadRow(const std::vector<std::string>& fields) {
        if (fields.size() != Places.size()) FailHere(kDamaged);
        Row row;
        row.StartMs = Needed(MomentIn(fields[Places["time"]]), "time");
        for (size_t i = 0; i < std::size(kColumnTable); ++i) {
            const Column& column = kColumnTable[i];
            if (!Sources[i].has_value() || fields[*Sources[i]].empty()) continue;
            row.Values[i] = Needed(ValueIn(fields[*Sources[i]], column.Scale), column.Name);
            row.Has |= BitOf(i);
        }
        GpuOf(fields).Rows.push_back(row);
    }

    template <typename Value>
    Value Needed(std::optional<Value> value, const char* column) const {
        if (!value.has_value()) FailHere(std::string("has no sensible value of ") + column);
        return *value;
    }

    /// What a line says in a column; empty where the recording does not have the column.
    std::string Text(const std::vector<std::string>& fields, const char* column) const {
        const auto place = Places.find(column);
        std::string text = place != Places.end() ? fields[place->second] : "";
        if (text.size() > kMostTextBytes) FailHere(std::string("has too long a ") + column);
        return text;
    }

    /// A GPU without a UUID is known by its index.
    Gpu& GpuOf(const std::vector<std::string>& fields) {
        const std::string uuid = Text(fields, "uuid");
        const std::string& index = fields[Places["index"]];
        const auto [known, bNew] = Known.emplace(uuid.empty() ? index : uuid, Gpus.size());
        if (bNew) {
            if (Gpus.size() == kMaxBoards) Fail("it has more than " + std::to_string(kMaxBoards) + " GPUs");
            const std::string name = Text(fields, "name");
            Gpus.push_back(
                {name.empty() ? "Recorded GPU" : name, uuid, Needed(NumberIn<unsigned int>(index), "index"), {}});
        }
        return Gpus[known->second];
    }

    std::ifstream File;
    size_t LineNumber = 0;
    /// Where a line has its columns.
    std::map<std::string, size_t> Places;
    /// The same for the columns of the table.
    std::vector<std::optional<size_t>> Sources;
    /// Where `Gpus` has them, by UUID or index.
    std::map<std::string, size_t> Known;
    std::vector<Gpu> Gpus;
};

// ---- The playback's time ----

bool IsEarlier(const Row& a, const Row& b) {
    return a.StartMs < b.StartMs;
}

/// How long it usually is from row to row around one of these distances: a user may change the interval.
int64_t UsualMs(const std::vector<int64_t>& distances, size_t place) {
    constexpr size_t kAround = 4;
    const auto at = [&](size_t i) { return distances.begin() + static_cast<std::ptrdiff_t>(i); };
    std::vector<int64_t> nearby(at(place - std::min(place, kAround)),
                                at(std::min(place + kAround + 1, distances.size())));
    std::sort(nearby.begin(), nearby.end());
    return std::min(nearby[(nearby.size() - 1) / 2], kLongestIntervalMs);
}

/// Sorts the rows, because the clock may have been set back, and decides how long each is in force.
void OrderRows(Gpu* gpu) {
    std::vector<Row>& rows = gpu->Rows;
    std::stable_sort(rows.begin(), rows.end(), IsEarlier);
    const auto atOnce = [](const Row& a, const Row& b) { return a.StartMs == b.StartMs; };
    rows.erase(std::unique(rows.begin(), rows.end(), atOnce), rows.end());
    std::vector<int64_t> distances;
    for (size_t i = 1; i < rows.size(); ++i) distances.push_back(rows[i].StartMs - rows[i - 1].StartMs);
    for (size_t i = 0; i < distances.size(); ++i) {
        const int64_t usual = UsualMs(distances, i);
        rows[i].LastsMs = distances[i] > kGapDistances * usual ? usual : distances[i];
        gpu->UsualMs = i == 0 ? usual : std::max(gpu->UsualMs, usual);
    }
}

/// Lets the recording begin at 0 and shortens stretches in which no GPU was recorded.
void ShortenSilence(std::vector<Gpu>* gpus) {
    std::vector<Row*> rows;
    int64_t usual = 0;
    for (Gpu& gpu : *gpus) {
        for (Row& row : gpu.Rows) rows.push_back(&row);
        usual = std::max(usual, gpu.UsualMs);
    }
    std::sort(rows.begin(), rows.end(), [](const Row* a, const Row* b) { return IsEarlier(*a, *b); });
    const int64_t longest = usual + kLongestSilenceMs;
    int64_t recorded = rows.front()->StartMs;
    int64_t played = 0;
    for (Row* row : rows) {
        played += std::min(row->StartMs - recorded, longest);
        recorded = std::exchange(row->StartMs, played);
    }
}

/// Lets the first and the last row reach to the recording's ends, where no rows are missing.
void CloseEnds(Gpu* gpu, int64_t periodMs) {
    const int64_t longest = kGapDistances * gpu->UsualMs;
    Row& last = gpu->Rows.back();
    last.LastsMs = periodMs - last.StartMs > longest ? gpu->UsualMs : periodMs - last.StartMs;
    Row& first = gpu->Rows.front();
    if (first.StartMs <= longest) first.LastsMs += std::exchange(first.StartMs, 0);
}

Board BoardOf(unsigned int index, Gpu* gpu, int64_t periodMs) {
    CloseEnds(gpu, periodMs);
    Board board;
    // A recording has no PCI places, but some clients refuse boards that have none.
    PutIntoSlot(index, &board);
    board.Name = gpu->Name;
    board.Uuid = gpu->Uuid;
    board.Unsupported = {"nvmlDeviceSetPowerManagementLimit", "nvmlDeviceSetGpuLockedClocks",
                         "nvmlDeviceSetMemoryLockedClocks"};
    if (board.Uuid.empty()) board.Unsupported.insert("nvmlDeviceGetUUID");
    board.Recorded = std::make_shared<const RecordedGpu>(std::move(gpu->Rows), periodMs);
    return board;
}

std::vector<Board> BoardsOf(std::vector<Gpu> gpus) {
    for (Gpu& gpu : gpus) OrderRows(&gpu);
    ShortenSilence(&gpus);
    std::stable_sort(gpus.begin(), gpus.end(), [](const Gpu& a, const Gpu& b) { return a.Index < b.Index; });
    int64_t periodMs = 0;
    for (const Gpu& gpu : gpus) periodMs = std::max(periodMs, gpu.Rows.back().StartMs + gpu.UsualMs);
    std::vector<Board> boards;
    boards.reserve(gpus.size());
    for (unsigned int i = 0; i < gpus.size(); ++i) boards.push_back(BoardOf(i, &gpus[i], periodMs));
    return boards;
}

}  // namespace

RecordedGpu::RecordedGpu(std::vector<Row> rows, int64_t periodMs) : Rows(std::move(rows)), PeriodMs(periodMs) {
    for (const Row& row : Rows) EverHas |= row.Has;
    // Where nothing limits, the field is empty too.
    const uint32_t zeroWhereEmpty = EverHas & ColumnsNamed(kLimitReasons);
    for (Row& row : Rows) row.Has |= zeroWhereEmpty;
}

const RecordedGpu::Row* RecordedGpu::RowAt(double seconds) const {
    // The system clock may have been set back to before the start.
    const int64_t moment = (std::llround(seconds * 1000.0) % PeriodMs + PeriodMs) % PeriodMs;
    const auto begun = [moment](const Row& row) { return row.StartMs <= moment; };
    const auto next = std::partition_point(Rows.begin(), Rows.end(), begun);
    if (next == Rows.begin()) return nullptr;
    const Row& row = *std::prev(next);
    return moment < row.StartMs + row.LastsMs ? &row : nullptr;
}

NvmlReturn RecordedGpu::Verdict(const Row& row, EntryPoint name, Arguments arguments) const {
    switch (name) {
        case E::nvmlDeviceGetName:
        case E::nvmlDeviceGetUUID:
        case E::nvmlDeviceGetIndex:
        case E::nvmlDeviceGetMinorNumber:
        case E::nvmlDeviceGetPciInfo_v3:
        case E::nvmlDeviceGetPciInfo_v2:
        case E::nvmlDeviceGetPciInfo:
        // These two give what other queries give, and ask for their verdicts.
        case E::nvmlDeviceGetNumFans:
        case E::nvmlDeviceGetClock: return kSuccess;
        // The power of moments does not give the energy since the driver was loaded.
        case E::nvmlDeviceGetTotalEnergyConsumption: return kNotSupported;
        default: break;
    }
    const uint32_t given = ColumnsWith([&](const Column& column) {
        return column.Query == QueryOf(name) && (!column.Selector.has_value() || column.Selector == *arguments.begin());
    });
    if (given == 0 || (given & ~EverHas) != 0) return kNotSupported;
    return (given & ~row.Has) != 0 ? kUnknown : kSuccess;
}

void PutOnBoard(const Row& row, Board* board, Readings* readings, BoardSettings* settings) {
    const Destination to{board, readings, settings};
    for (size_t i = 0; i < std::size(kColumnTable); ++i) kColumnTable[i].Put(row.Values[i], to);
}

std::vector<Board> RecordedBoards(const std::string& path) {
    try {
        return BoardsOf(Reader(path).Read());
    } catch (const std::invalid_argument& failure) {
        throw std::invalid_argument(path + " cannot be played: " + failure.what() + '.');
    }
}

}  // namespace simulated_nvml
