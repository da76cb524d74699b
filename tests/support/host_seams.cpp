#include "host_seams.h"

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <system_error>

// std::thread's constructor calls this member of the standard library; the arguments are passed on as they come.
#define START_THREAD(prefix) \
    prefix##_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE

namespace {

std::mutex Mutex;
std::condition_variable WaitBegan;
std::vector<host_seams::TimedWait> Waits;
int SpuriousWakeUps = 0;
std::atomic<bool> bThreadsRefused{false};

/// Notes a wait; true when it is to end at once.
bool NoteWait(const timespec& deadline) {
    const auto end = std::chrono::seconds(deadline.tv_sec) + std::chrono::nanoseconds(deadline.tv_nsec);
    const std::lock_guard<std::mutex> lock(Mutex);
    Waits.push_back({end, end - std::chrono::steady_clock::now().time_since_epoch()});
    WaitBegan.notify_all();
    return SpuriousWakeUps > 0 && SpuriousWakeUps-- > 0;
}

}  // namespace

extern "C" {

int __real_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline);
void START_THREAD(__real_)(void* thread, void* state, void (*depend)());

void START_THREAD(__wrap_)(void* thread, void* state, void (*depend)()) {
    if (bThreadsRefused) throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    START_THREAD(__real_)(thread, state, depend);
}

int __wrap_pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                                  const timespec* deadline) {
    return NoteWait(*deadline) ? 0 : __real_pthread_cond_clockwait(condition, mutex, clock, deadline);
}

}  // extern "C"

namespace host_seams {

void Reset() {
    const std::lock_guard<std::mutex> lock(Mutex);
    bThreadsRefused = false;
    SpuriousWakeUps = 0;
    Waits.clear();
}

void RefuseThreads(bool bRefuse) {
    bThreadsRefused = bRefuse;
}

std::vector<TimedWait> TimedWaits() {
    const std::lock_guard<std::mutex> lock(Mutex);
    return Waits;
}

bool WaitForTimedWaits(size_t count) {
    std::unique_lock<std::mutex> lock(Mutex);
    // The wall clock, because waits on the steady clock are what these seams note.
    const auto giveUp = std::chrono::system_clock::now() + std::chrono::seconds(60);
    return WaitBegan.wait_until(lock, giveUp, [count] { return Waits.size() >= count; });
}

void WakeSpuriously(int count) {
    const std::lock_guard<std::mutex> lock(Mutex);
    SpuriousWakeUps = count;
}

}  // namespace host_seams
