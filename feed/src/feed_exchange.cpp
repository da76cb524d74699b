#include "feed_exchange.h"

#include <algorithm>
#include <utility>

namespace gpu_feed {

namespace {

/// The clock counts nanoseconds, which are too many beyond this moment.
constexpr double kFarthestSeconds = 9.0e9;

/// A moment of the steady clock from its seconds.
std::chrono::steady_clock::time_point TimePoint(double seconds) {
    using Clock = std::chrono::steady_clock;
    const std::chrono::duration<double> sinceEpoch(std::min(seconds, kFarthestSeconds));
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(sinceEpoch));
}

}  // namespace

void FeedExchange::Post(Request request) {
    {
        const std::lock_guard<std::mutex> lock(Mutex);
        if (!bEnded) {
            Requests.push_back(std::move(request));
            Wake.notify_all();
            return;
        }
    }
    request(nullptr);
}

std::shared_ptr<const FeedData> FeedExchange::Latest() const {
    const std::lock_guard<std::mutex> lock(Mutex);
    return Data;
}

bool FeedExchange::Stop(std::chrono::milliseconds patience) {
    std::unique_lock<std::mutex> lock(Mutex);
    bStop = true;
    Wake.notify_all();
    const bool bInTime = Ended.wait_for(lock, patience, [this] { return bEnded; });
    OnChange = [] {};
    return bInTime;
}

bool FeedExchange::WaitForRequest(std::optional<double> moment) {
    std::unique_lock<std::mutex> lock(Mutex);
    const auto hasWork = [this] { return bStop || !Requests.empty(); };
    if (moment) {
        Wake.wait_until(lock, TimePoint(*moment), hasWork);
    } else {
        Wake.wait(lock, hasWork);
    }
    return !bStop;
}

FeedExchange::Request FeedExchange::TakeRequest() {
    const std::lock_guard<std::mutex> lock(Mutex);
    if (Requests.empty()) return nullptr;
    Request request = std::move(Requests.front());
    Requests.pop_front();
    return request;
}

void FeedExchange::Publish(std::shared_ptr<const FeedData> data) {
    // The former data is freed after the lock is released.
    const std::lock_guard<std::mutex> lock(Mutex);
    Data.swap(data);
}

void FeedExchange::SignalChange() {
    const std::lock_guard<std::mutex> lock(Mutex);
    OnChange();
}

void FeedExchange::End() {
    std::deque<Request> left;
    {
        const std::lock_guard<std::mutex> lock(Mutex);
        bEnded = true;
        left.swap(Requests);
    }
    for (const Request& request : left) request(nullptr);
    Ended.notify_all();
}

}  // namespace gpu_feed
