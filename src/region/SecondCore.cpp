#include "region/SecondCore.hpp"

#include <chrono>
#include <system_error>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

// Jobs come in runs, one per buffer of a file a fraction of a millisecond apart. A thread
// that sleeps between them is woken by the kernel, which on a virtual machine can take
// longer than the job itself; so each side first watches the flag for about half as long
// as a job takes, and only then sleeps. Not longer: on a machine busy with other work the
// watching takes a core from someone, and a job the helper is late for is taken back.
constexpr auto kSpin = std::chrono::microseconds(250);

template <class Done> bool SpinUntil(const Done& done) {
    const auto until = std::chrono::steady_clock::now() + kSpin;
    for (int round = 0;; ++round) {
        if (done())
            return true;
        if (round % 64 == 63 && std::chrono::steady_clock::now() > until)
            return false;
#if defined(__SSE2__)
        _mm_pause();
#endif
    }
}

} // namespace

std::unique_ptr<SecondCore> SecondCore::StartIfUseful() {
    if (std::thread::hardware_concurrency() < 2)
        return nullptr;
    try {
        return std::unique_ptr<SecondCore>(new SecondCore());
    } catch (const std::system_error&) {
        return nullptr; // no thread to be had: one core does it all
    }
}

SecondCore::SecondCore() : thread_([this] { Loop(); }) {}

SecondCore::~SecondCore() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        quit_ = true;
    }
    wake_.notify_all();
    thread_.join();
}

void SecondCore::Start(std::function<void()> job) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        job_ = std::move(job);
        busy_ = true;
    }
    wake_.notify_all();
}

void SecondCore::Wait() {
    if (SpinUntil([this] { return !busy_.load(std::memory_order_acquire); }))
        return;
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [this] { return !busy_; });
}

bool SecondCore::TakeBack() {
    std::lock_guard<std::mutex> lock(mutex_);
    // The helper moves the job out under the mutex as it begins it.
    if (!busy_ || !job_)
        return false;
    job_ = nullptr;
    busy_ = false;
    return true;
}

void SecondCore::Loop() {
    for (;;) {
        (void)SpinUntil([this] { return busy_.load(std::memory_order_acquire) || quit_; });
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait(lock, [this] { return busy_ || quit_; });
        if (busy_) {
            {
                // Gone before the caller can see the job done and end what it refers to.
                const std::function<void()> job = std::move(job_);
                job_ = nullptr; // begun: no longer to be taken back
                lock.unlock();
                job();
            }
            lock.lock();
            busy_ = false;
            wake_.notify_all();
        } else if (quit_) {
            return;
        }
    }
}
