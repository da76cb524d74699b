#ifndef GPU_PANEL_PROCESS_TABLE_H
#define GPU_PANEL_PROCESS_TABLE_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "gpu_feed/feed_data.h"
#include "imgui.h"

namespace gpu_panel {

/// The processes of one GPU, in the order that the user chooses.
class ProcessTable {
public:
    /// Draws the table. `gpu` is the GPU as last published.
    void Draw(const std::shared_ptr<const gpu_feed::FeedGpu>& gpu, bool bCurrent);

private:
    struct Row {
        const gpu_feed::FeedProcess* Process = nullptr;
        std::string Command;
        std::string User;
        std::string Vram;
        std::string Cpu;
        std::string Memory;
    };

    void Prepare();
    void Sort();
    void TakeOrder();
    static void DrawRow(const Row& row);

    /// Keeps the processes that the rows point to.
    std::shared_ptr<const gpu_feed::FeedGpu> Gpu;
    std::vector<Row> Rows;
    /// Numbers of rows, as they are shown.
    std::vector<size_t> Order;
    /// The id of a column of the table.
    int SortedColumn = 0;
    bool bAscending = false;
};

}  // namespace gpu_panel

#endif  // GPU_PANEL_PROCESS_TABLE_H
