#ifndef STATE_LOG_H
#define STATE_LOG_H

#include <map>
#include <string>

#include "gpu_feed/feed_data.h"

/// Prints a line on standard error when the state of the driver or of a GPU has changed.
class StateLog {
public:
    /// To be called a few times per second with the feed's moment.
    void Note(const gpu_feed::FeedMoment& moment);

private:
    struct KnownGpu {
        /// The GPU in a sentence.
        std::string Name;
        bool bReadings = true;
    };

    void NoteDriver(const gpu_feed::FeedMoment& moment);
    void NoteGpus(const gpu_feed::FeedMoment& moment);

    std::string Status;
    bool bHanging = false;
    /// By `FeedGpu::Key`.
    std::map<std::string, KnownGpu> Known;
};

#endif  // STATE_LOG_H
