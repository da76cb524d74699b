#include "gpu_feed/sample_history.h"

#include <algorithm>
#include <utility>

namespace gpu_feed {

void SampleHistory::Append(const GpuTelemetrySample& sample, const EnergyCount& energy) {
    const size_t place = (First + Count) % kBlockSamples;
    if (place == 0 || !Blocks->back()->Claim(place)) AddRoom();
    Blocks->back()->Entries[place] = {sample, energy};
    if (Count < kMostSamples) {
        ++Count;
    } else {
        ++First;
    }
}

void SampleHistory::AddRoom() {
    const size_t place = (First + Count) % kBlockSamples;
    const bool bFirstIsUsed = First < kBlockSamples;
    BlockList blocks;
    if (Blocks != nullptr) blocks.assign(Blocks->begin() + (bFirstIsUsed ? 0 : 1), Blocks->end());
    const auto block = std::make_shared<Block>();
    block->Used = place + 1;
    if (place > 0) {
        // A copy of this history has gone on in the last block.
        std::copy_n(blocks.back()->Entries.begin(), place, block->Entries.begin());
        blocks.pop_back();
    }
    blocks.push_back(block);
    Blocks = std::make_shared<const BlockList>(std::move(blocks));
    if (!bFirstIsUsed) First -= kBlockSamples;
}

}  // namespace gpu_feed
