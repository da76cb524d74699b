#include "process_table.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <utility>

#include "gpu_feed/reading_text.h"
#include "look.h"

using namespace gpu_feed;

namespace gpu_panel {

namespace {

enum Column { Pid, Command, User, Vram, Cpu, Memory, ColumnCount };

/// Rows that are shown at once; more of them scroll.
constexpr size_t kMostRows = 12;
/// In font sizes: narrower tables leave columns out.
constexpr float kWideEnoughForUser = 42.0F;
constexpr float kWideEnoughForMemory = 52.0F;

/// Without the folder of the program, which would take the room of the arguments.
void WriteCommand(const FeedProcess& process, std::string* text) {
    const std::string& line = process.CommandLine.empty() ? process.Name : process.CommandLine;
    const size_t slash = line.rfind('/', line.find(' '));
    text->assign(line, slash == std::string::npos ? 0 : slash + 1);
    if (text->empty()) *text = kNotRead;
    *text = Printable(std::move(*text));
}

template <typename Value>
int Compare(const Value& a, const Value& b) {
    return a < b ? -1 : b < a ? 1 : 0;
}

int CompareIn(int column, const FeedProcess& a, const FeedProcess& b) {
    switch (column) {
        case Command: return Compare(a.Name, b.Name);
        case User: return Compare(a.User, b.User);
        case Vram: return Compare(a.VramUsedBytes, b.VramUsedBytes);
        case Cpu: return Compare(a.CpuPercent, b.CpuPercent);
        case Memory: return Compare(a.MemoryBytes, b.MemoryBytes);
        default: return Compare(a.Pid, b.Pid);
    }
}

void RightAligned(const std::string& text) {
    const float width = ImGui::CalcTextSize(text.data(), text.data() + text.size()).x;
    ImGui::SetCursorPosX(ImGui::GetCursorPosX() + std::max(ImGui::GetContentRegionAvail().x - width, 0.0F));
    ImGui::TextUnformatted(text.data(), text.data() + text.size());
}

/// Moves the cursor to a whole pixel. Result: whether anything of the next item would be seen, which is so high.
/// ImGui's check rounds in another way, and an assertion fails where it begins a scrolling table that nobody can see.
bool GoToVisible(float height) {
    const ImVec2 cursor = ImGui::GetCursorScreenPos();
    const float top = std::floor(cursor.y);
    ImGui::SetCursorScreenPos({cursor.x, top});
    const ImDrawList& window = *ImGui::GetWindowDrawList();
    return std::max(top, window.GetClipRectMin().y) < std::min(top + height, window.GetClipRectMax().y);
}

}  // namespace

void ProcessTable::Prepare() {
    Rows.resize(Gpu->Processes.size());
    for (size_t i = 0; i < Rows.size(); ++i) {
        const FeedProcess& process = Gpu->Processes[i];
        Row& row = Rows[i];
        row.Process = &process;
        WriteCommand(process, &row.Command);
        row.User = process.User.empty() ? kNotRead : process.User.c_str();
        row.Vram = MemoryText(process.VramUsedBytes);
        row.Cpu = process.CpuPercent ? Number(*process.CpuPercent, 0) + " %" : kNotRead;
        row.Memory = process.MemoryBytes ? MemoryText(*process.MemoryBytes) : kNotRead;
    }
    Order.resize(Rows.size());
    Sort();
}

void ProcessTable::Sort() {
    std::iota(Order.begin(), Order.end(), size_t{0});
    // Equal processes stay in the order of their ids, so that rows do not jump.
    std::sort(Order.begin(), Order.end(), [this](size_t first, size_t second) {
        const FeedProcess& a = *Rows[first].Process;
        const FeedProcess& b = *Rows[second].Process;
        const int order = bAscending ? CompareIn(SortedColumn, a, b) : CompareIn(SortedColumn, b, a);
        return order != 0 ? order < 0 : a.Pid < b.Pid;
    });
}

void ProcessTable::TakeOrder() {
    ImGuiTableSortSpecs* const specs = ImGui::TableGetSortSpecs();
    if (specs == nullptr || !specs->SpecsDirty || specs->SpecsCount == 0) return;
    SortedColumn = static_cast<int>(specs->Specs[0].ColumnUserID);
    bAscending = specs->Specs[0].SortDirection == ImGuiSortDirection_Ascending;
    specs->SpecsDirty = false;
    Sort();
}

void ProcessTable::Draw(const std::shared_ptr<const FeedGpu>& gpu, bool bCurrent) {
    if (Gpu != gpu) {
        Gpu = gpu;
        Prepare();
    }
    if (Rows.empty()) {
        ImGui::TextDisabled("No process uses its memory.");
        return;
    }
    const float em = ImGui::GetFontSize();
    const float rowHeight = ImGui::GetTextLineHeight() + 2.0F * ImGui::GetStyle().CellPadding.y;
    const float width = ImGui::GetContentRegionAvail().x;
    const auto shownRows = static_cast<float>(std::min(Rows.size(), kMostRows) + 1);
    // A little more than whole rows, so that they need no scroll bar.
    const ImVec2 size = {width, std::floor(shownRows * rowHeight + 0.2F * em)};
    if (!GoToVisible(size.y)) return ImGui::Dummy(size);
    constexpr ImGuiTableFlags kFlags = ImGuiTableFlags_Sortable | ImGuiTableFlags_RowBg | ImGuiTableFlags_ScrollY |
                                       ImGuiTableFlags_SizingFixedFit | ImGuiTableFlags_NoSavedSettings;
    if (!ImGui::BeginTable("processes", ColumnCount, kFlags, size)) return;
    const auto shownFrom = [&](float ems) { return width < ems * em ? ImGuiTableColumnFlags_Disabled : 0; };
    const ImGuiTableColumnFlags number = ImGuiTableColumnFlags_PreferSortDescending;
    ImGui::TableSetupScrollFreeze(0, 1);
    ImGui::TableSetupColumn("PID", 0, 4.0F * em, Pid);
    ImGui::TableSetupColumn("Command", ImGuiTableColumnFlags_WidthStretch, 1.0F, Command);
    ImGui::TableSetupColumn("User", shownFrom(kWideEnoughForUser), 6.0F * em, User);
    ImGui::TableSetupColumn("VRAM", number | ImGuiTableColumnFlags_DefaultSort, 5.5F * em, Vram);
    ImGui::TableSetupColumn("CPU", number, 3.5F * em, Cpu);
    ImGui::TableSetupColumn("Memory", number | shownFrom(kWideEnoughForMemory), 5.5F * em, Memory);
    ImGui::TableHeadersRow();
    TakeOrder();
    if (!bCurrent) ImGui::PushStyleColor(ImGuiCol_Text, CurrentPalette().Dim);
    ImGuiListClipper clipper;
    clipper.Begin(static_cast<int>(Order.size()), rowHeight);
    while (clipper.Step()) {
        for (int i = clipper.DisplayStart; i < clipper.DisplayEnd; ++i) DrawRow(Rows[Order[static_cast<size_t>(i)]]);
    }
    if (!bCurrent) ImGui::PopStyleColor();
    ImGui::EndTable();
}

void ProcessTable::DrawRow(const Row& row) {
    ImGui::TableNextRow();
    if (ImGui::TableSetColumnIndex(Pid)) ImGui::Text("%d", row.Process->Pid);
    if (ImGui::TableSetColumnIndex(Command)) {
        FittedText(ImGui::GetContentRegionAvail().x, ImGui::GetColorU32(ImGuiCol_Text), row.Command);
        if (ImGui::IsItemHovered()) {
            ImGui::BeginTooltip();
            ImGui::PushTextWrapPos(ImGui::GetFontSize() * 40.0F);
            ImGui::TextUnformatted(row.Command.data(), row.Command.data() + row.Command.size());
            ImGui::PopTextWrapPos();
            ImGui::EndTooltip();
        }
    }
    if (ImGui::TableSetColumnIndex(User)) {
        FittedText(ImGui::GetContentRegionAvail().x, ImGui::GetColorU32(ImGuiCol_Text), row.User);
    }
    if (ImGui::TableSetColumnIndex(Vram)) RightAligned(row.Vram);
    if (ImGui::TableSetColumnIndex(Cpu)) RightAligned(row.Cpu);
    if (ImGui::TableSetColumnIndex(Memory)) RightAligned(row.Memory);
}

}  // namespace gpu_panel
