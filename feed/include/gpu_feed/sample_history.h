#ifndef GPU_FEED_SAMPLE_HISTORY_H
#define GPU_FEED_SAMPLE_HISTORY_H

#include <array>
#include <atomic>
#include <cstddef>
#include <iterator>
#include <memory>
#include <vector>

#include "gpu_feed/energy.h"
#include "nvml_gpu_monitor.h"

namespace gpu_feed {

/// The newest samples of one GPU, oldest first, at most `kMostSamples`: as a container of the standard library.
///
/// A value: what one copy gains does not show in another. Copies share the samples that they have in common, so a copy
/// costs the same however long the history is.
///
/// Threads: different copies may be used by different threads, also while one of them gains samples.
class SampleHistory {
public:
    class Iterator;

    static constexpr size_t kMostSamples = 6000;

    /// Adds the newest sample, and drops the oldest of a full history. `energy`: counted up to this sample. After an
    /// exception, everything is as before.
    void Append(const GpuTelemetrySample& sample, const EnergyCount& energy = {});

    /// What was counted up to sample `i`.
    const EnergyCount& EnergyAt(size_t i) const { return EntryAt(i).Energy; }

    // NOLINTBEGIN(readability-identifier-naming): the names that algorithms and loops look for.
    using value_type = GpuTelemetrySample;
    using const_iterator = Iterator;

    size_t size() const { return Count; }
    bool empty() const { return Count == 0; }
    const GpuTelemetrySample& operator[](size_t i) const { return EntryAt(i).Sample; }
    const GpuTelemetrySample& front() const { return (*this)[0]; }
    const GpuTelemetrySample& back() const { return (*this)[Count - 1]; }
    Iterator begin() const;
    Iterator end() const;
    std::reverse_iterator<Iterator> rbegin() const;
    std::reverse_iterator<Iterator> rend() const;
    // NOLINTEND(readability-identifier-naming)

private:
    static constexpr size_t kBlockSamples = 128;

    struct Entry {
        GpuTelemetrySample Sample;
        EnergyCount Energy;
    };

    /// Filled from its beginning. What one history has written here is never written again, because copies of that
    /// history may read it on other threads.
    struct Block {
        std::atomic<size_t> Used{0};
        std::array<Entry, kBlockSamples> Entries;

        /// Reserves place `i` for the caller, if it is the next free one.
        bool Claim(size_t i) { return Used.compare_exchange_strong(i, i + 1); }
    };
    using BlockList = std::vector<std::shared_ptr<Block>>;

    const Entry& EntryAt(size_t i) const {
        return (*Blocks)[(First + i) / kBlockSamples]->Entries[(First + i) % kBlockSamples];
    }
    /// Makes room for one more sample behind the last one.
    void AddRoom();

    /// Never changed, so that copies can share it; null in a history that never had a sample.
    std::shared_ptr<const BlockList> Blocks;
    /// The place of the oldest sample, counted from the beginning of the first block.
    size_t First = 0;
    size_t Count = 0;
};

/// Refers to a sample by its number, in a history that must outlive it and gain nothing meanwhile.
class SampleHistory::Iterator {
public:
    // NOLINTBEGIN(readability-identifier-naming): the names that algorithms look for.
    using iterator_category = std::random_access_iterator_tag;
    using value_type = GpuTelemetrySample;
    using difference_type = std::ptrdiff_t;
    using pointer = const GpuTelemetrySample*;
    using reference = const GpuTelemetrySample&;
    // NOLINTEND(readability-identifier-naming)

    Iterator() = default;
    Iterator(const SampleHistory* history, size_t index)
        : History(history), Index(static_cast<difference_type>(index)) {}

    reference operator*() const { return (*this)[0]; }
    pointer operator->() const { return &(*this)[0]; }
    reference operator[](difference_type n) const { return (*History)[static_cast<size_t>(Index + n)]; }

    Iterator& operator+=(difference_type n) {
        Index += n;
        return *this;
    }
    Iterator& operator-=(difference_type n) { return *this += -n; }
    Iterator& operator++() { return *this += 1; }
    Iterator& operator--() { return *this += -1; }
    Iterator operator++(int) {
        const Iterator before = *this;
        ++*this;
        return before;
    }
    Iterator operator--(int) {
        const Iterator before = *this;
        --*this;
        return before;
    }

    friend Iterator operator+(Iterator a, difference_type n) { return a += n; }
    friend Iterator operator+(difference_type n, Iterator a) { return a += n; }
    friend Iterator operator-(Iterator a, difference_type n) { return a -= n; }
    friend difference_type operator-(const Iterator& a, const Iterator& b) { return a.Index - b.Index; }
    friend bool operator==(const Iterator& a, const Iterator& b) { return a.Index == b.Index; }
    friend bool operator!=(const Iterator& a, const Iterator& b) { return a.Index != b.Index; }
    friend bool operator<(const Iterator& a, const Iterator& b) { return a.Index < b.Index; }
    friend bool operator>(const Iterator& a, const Iterator& b) { return a.Index > b.Index; }
    friend bool operator<=(const Iterator& a, const Iterator& b) { return a.Index <= b.Index; }
    friend bool operator>=(const Iterator& a, const Iterator& b) { return a.Index >= b.Index; }

private:
    const SampleHistory* History = nullptr;
    difference_type Index = 0;
};

inline SampleHistory::Iterator SampleHistory::begin() const {
    return {this, 0};
}

inline SampleHistory::Iterator SampleHistory::end() const {
    return {this, Count};
}

inline std::reverse_iterator<SampleHistory::Iterator> SampleHistory::rbegin() const {
    return std::make_reverse_iterator(end());
}

inline std::reverse_iterator<SampleHistory::Iterator> SampleHistory::rend() const {
    return std::make_reverse_iterator(begin());
}

}  // namespace gpu_feed

#endif  // GPU_FEED_SAMPLE_HISTORY_H
