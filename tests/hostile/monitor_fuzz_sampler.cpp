#include "monitor_fuzz_sampler.h"

#include <pthread.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <system_error>

#include "monitor_fuzz_input.h"

// The linker puts these three in the place of the standard library's: the constructor of std::thread, the wait of
// std::condition_variable on the steady clock, and that clock.
#define START_THREAD(prefix) \
    prefix##_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE
#define CLOCK_WAIT(prefix) prefix##pthread_cond_clockwait
#define STEADY_NOW(prefix) prefix##_ZNSt6chrono3_V212steady_clock3nowEv

namespace {

// Guard comes after the monitor's own mutex, which the sampler holds when it begins a wait.
std::mutex Guard;
std::condition_variable WaitBegan;
uint64_t WaitCount = 0;
unsigned int WaitsToPass = 0;
bool bThreadRefused = false;
std::chrono::nanoseconds Now{};
std::chrono::nanoseconds WaitLength{};
// Where the sampler waits.
pthread_cond_t* Condition = nullptr;
pthread_mutex_t* MonitorMutex = nullptr;

std::chrono::nanoseconds TimeOf(const timespec& moment) {
    return std::chrono::seconds(moment.tv_sec) + std::chrono::nanoseconds(moment.tv_nsec);
}

/// Ends a wait by moving the clock to its deadline, if it is to end.
bool PassIfTold(const timespec& deadline) {
    const std::lock_guard<std::mutex> lock(Guard);
    if (WaitsToPass == 0) return false;
    --WaitsToPass;
    Now = TimeOf(deadline);
    return true;
}

void NoteWait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec& deadline) {
    const std::lock_guard<std::mutex> lock(Guard);
    Condition = condition;
    MonitorMutex = mutex;
    WaitLength = TimeOf(deadline) - Now;
    ++WaitCount;
    WaitBegan.notify_all();
}

/// Has to hold the monitor's mutex: only then is the sampler in its wait for certain, and not merely on its way there.
void Wake(unsigned int waitsToPass) {
    pthread_mutex_lock(MonitorMutex);
    {
        const std::lock_guard<std::mutex> lock(Guard);
        WaitsToPass = waitsToPass;
    }
    pthread_cond_broadcast(Condition);
    pthread_mutex_unlock(MonitorMutex);
}

}  // namespace

extern "C" {

void START_THREAD(__real_)(void* thread, void* state, void (*depend)());

void START_THREAD(__wrap_)(void* thread, void* state, void (*depend)()) {
    if (bThreadRefused) {
        bThreadRefused = false;
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    }
    START_THREAD(__real_)(thread, state, depend);
}

int CLOCK_WAIT(__wrap_)(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t /*clock*/,
                        const timespec* deadline) {
    if (PassIfTold(*deadline)) return ETIMEDOUT;
    NoteWait(condition, mutex, *deadline);
    pthread_cond_wait(condition, mutex);
    return PassIfTold(*deadline) ? ETIMEDOUT : 0;
}

int64_t STEADY_NOW(__wrap_)() {
    const std::lock_guard<std::mutex> lock(Guard);
    Now += std::chrono::microseconds(1);
    return Now.count();
}

}  // extern "C"

namespace monitor_fuzz::sampler {

void Reset() {
    const std::lock_guard<std::mutex> lock(Guard);
    WaitCount = 0;
    WaitsToPass = 0;
    bThreadRefused = false;
    Now = std::chrono::seconds(1000);
}

uint64_t Waits() {
    const std::lock_guard<std::mutex> lock(Guard);
    return WaitCount;
}

void AwaitWaits(uint64_t count) {
    std::unique_lock<std::mutex> lock(Guard);
    // The wall clock, because the steady clock stands still.
    const auto giveUp = std::chrono::system_clock::now() + std::chrono::minutes(1);
    const bool bReached = WaitBegan.wait_until(lock, giveUp, [count] { return WaitCount >= count; });
    Require(bReached, "the sampler did not come to its wait");
    Require(WaitCount == count, "the sampler waited more often than it had a reason to");
}

std::chrono::milliseconds LatestWait() {
    const std::lock_guard<std::mutex> lock(Guard);
    return std::chrono::round<std::chrono::milliseconds>(WaitLength);
}

void LetWaitsPass(unsigned int count) {
    Wake(count);
}

void WakeSpuriously() {
    Wake(0);
}

void RefuseNextThread() {
    bThreadRefused = true;
}

bool ThreadRefusalPending() {
    return bThreadRefused;
}

double NowSeconds() {
    const std::lock_guard<std::mutex> lock(Guard);
    return static_cast<double>((Now + std::chrono::microseconds(1)).count()) / 1e9;
}

}  // namespace monitor_fuzz::sampler
