#ifndef RETRY_H
#define RETRY_H

#include "gpu_feed/feed_data.h"

/// What a feed is to do about a driver or GPUs that are missing.
enum class RetryStep {
    None,
    /// `MonitorFeed::Resume`: NVML could not be started.
    Resume,
    /// `MonitorFeed::Rescan`: the driver answers, but no GPU gives readings. It may have been loaded anew.
    Rescan,
};

/// Grows the time between two tries.
class BackOff {
public:
    /// Both in seconds; the time doubles with each try until it is `longest`.
    BackOff(double first, double longest) : First(first), Longest(longest), Wait(first) {}

    /// To be called again and again while there is a problem. Whether it is time for a try.
    bool IsDue(double now);

    /// The problem is over.
    void Reset() { *this = BackOff(First, Longest); }

private:
    double First;
    double Longest;
    double Wait;
    /// When to try; 0 while there is no problem.
    double NextTry = 0.0;
};

/// Decides when to look again for the driver and its GPUs.
class Retry {
public:
    /// To be called a few times per second with the feed's moment.
    RetryStep Next(const gpu_feed::FeedMoment& moment);

private:
    BackOff Unavailable{1.0, 60.0};
    BackOff Silent{30.0, 600.0};
};

#endif  // RETRY_H
