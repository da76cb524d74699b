#include "sampler_clock.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <system_error>

// The names by which the standard library's headers call the start of a std::thread, the wait of a
// std::condition_variable on the steady clock, and that clock.
#define START_THREAD(prefix) \
    prefix##_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE
#define CLOCK_WAIT(prefix) prefix##pthread_cond_clockwait
#define STEADY_NOW(prefix) prefix##_ZNSt6chrono3_V212steady_clock3nowEv

extern "C" {

void START_THREAD(__real_)(void* thread, void* state, void (*depend)());
int CLOCK_WAIT(__real_)(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* deadline);
int64_t STEADY_NOW(__real_)();

}  // extern "C"

namespace {

using std::chrono::nanoseconds;

constexpr std::chrono::seconds kPatience{60};

// Guards what follows. A thread that begins a wait locks it while it holds the mutex of the condition.
std::mutex Guard;
std::condition_variable WaitBegan;
uint64_t WaitCount = 0;
sampler_clock::TimedWait Latest{};
// What the latest wait waits on.
pthread_cond_t* Condition = nullptr;
pthread_mutex_t* ConditionMutex = nullptr;
bool bHeld = false;
nanoseconds HeldNow{};
unsigned int WaitsToPass = 0;
std::atomic<unsigned int> ThreadsToRefuse{0};

/// Ends the latest wait by moving the held clock to its deadline, if time is to pass.
bool PassLocked() {
    if (WaitsToPass == 0) return false;
    --WaitsToPass;
    HeldNow = Latest.Deadline;
    return true;
}

/// Waits by the wall clock, and ends the program when the wait takes too long.
void WaitToBeWoken(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    const timespec giveUp{std::time(nullptr) + kPatience.count(), 0};
    if (pthread_cond_timedwait(condition, mutex, &giveUp) != ETIMEDOUT) return;
    std::fputs("Nothing has ended a timed wait for a minute.\n", stderr);
    std::abort();
}

}  // namespace

extern "C" {

void START_THREAD(__wrap_)(void* thread, void* state, void (*depend)()) {
    if (ThreadsToRefuse > 0) {
        --ThreadsToRefuse;
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    }
    START_THREAD(__real_)(thread, state, depend);
}

int CLOCK_WAIT(__wrap_)(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock, const timespec* deadline) {
    std::unique_lock<std::mutex> lock(Guard);
    const nanoseconds end = std::chrono::seconds(deadline->tv_sec) + nanoseconds(deadline->tv_nsec);
    Latest = {end, end - (bHeld ? HeldNow : nanoseconds(STEADY_NOW(__real_)()))};
    Condition = condition;
    ConditionMutex = mutex;
    ++WaitCount;
    WaitBegan.notify_all();
    if (!bHeld) {
        lock.unlock();
        return CLOCK_WAIT(__real_)(condition, mutex, clock, deadline);
    }
    if (PassLocked()) return ETIMEDOUT;
    lock.unlock();
    WaitToBeWoken(condition, mutex);
    lock.lock();
    return PassLocked() ? ETIMEDOUT : 0;
}

int64_t STEADY_NOW(__wrap_)() {
    const std::lock_guard<std::mutex> lock(Guard);
    if (!bHeld) return STEADY_NOW(__real_)();
    HeldNow += std::chrono::microseconds(1);
    return HeldNow.count();
}

}  // extern "C"

namespace sampler_clock {

void Reset() {
    const std::lock_guard<std::mutex> lock(Guard);
    WaitCount = 0;
    Latest = {};
    bHeld = false;
    WaitsToPass = 0;
    ThreadsToRefuse = 0;
}

void Hold() {
    const std::lock_guard<std::mutex> lock(Guard);
    bHeld = true;
    HeldNow = std::chrono::seconds(1000);
}

void PassWaits(unsigned int count) {
    // With the mutex of the condition in hand, the thread has surely begun to wait: it held the mutex until then.
    pthread_mutex_lock(ConditionMutex);
    {
        const std::lock_guard<std::mutex> lock(Guard);
        WaitsToPass = count;
    }
    pthread_cond_broadcast(Condition);
    pthread_mutex_unlock(ConditionMutex);
}

uint64_t WaitsBegun() {
    const std::lock_guard<std::mutex> lock(Guard);
    return WaitCount;
}

TimedWait LatestWait() {
    const std::lock_guard<std::mutex> lock(Guard);
    return Latest;
}

bool AwaitWaits(uint64_t count) {
    std::unique_lock<std::mutex> lock(Guard);
    // The wall clock, because this source replaces waits on the steady clock.
    const auto giveUp = std::chrono::system_clock::now() + kPatience;
    return WaitBegan.wait_until(lock, giveUp, [count] { return WaitCount >= count; });
}

void RefuseThreads(unsigned int count) {
    ThreadsToRefuse = count;
}

}  // namespace sampler_clock
