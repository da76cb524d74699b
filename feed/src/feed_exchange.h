#ifndef FEED_EXCHANGE_H
#define FEED_EXCHANGE_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "gpu_feed/feed_data.h"

namespace gpu_feed {

class FeedWorker;

/// What the interface and the feed's thread hand each other: requests in one direction, data and signals in the other.
///
/// Its mutex is never held while the driver is at work, so the interface never waits for the driver here.
class FeedExchange {
public:
    /// Something for the worker to do. Called with null when the feed has ended.
    using Request = std::function<void(FeedWorker* worker)>;

    /// `onChange` is what `FeedOptions::OnChange` says.
    explicit FeedExchange(std::function<void()> onChange) : OnChange(std::move(onChange)) {}

    // ---- Called by the interface ----

    void Post(Request request);
    /// Never null.
    std::shared_ptr<const FeedData> Latest() const;
    /// Asks the thread to end, and lets it call `onChange` no more. Result: false when the thread has not ended within
    /// `patience`.
    bool Stop(std::chrono::milliseconds patience);

    // ---- Called by the feed's thread ----

    /// Waits for a request, at most until `moment`, if there is one. Result: false when the feed is to end.
    bool WaitForRequest(std::optional<double> moment);
    /// The oldest request; empty when there is none.
    Request TakeRequest();
    void Publish(std::shared_ptr<const FeedData> data);
    /// Calls `onChange`.
    void SignalChange();
    /// Refuses the requests that are left, and all further ones.
    void End();

private:
    // Mutex guards everything.
    mutable std::mutex Mutex;
    std::condition_variable Wake;
    std::condition_variable Ended;
    std::function<void()> OnChange;
    std::shared_ptr<const FeedData> Data = std::make_shared<const FeedData>();
    std::deque<Request> Requests;
    bool bStop = false;
    bool bEnded = false;
};

}  // namespace gpu_feed

#endif  // FEED_EXCHANGE_H
