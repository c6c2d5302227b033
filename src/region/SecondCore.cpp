#include "region/SecondCore.hpp"

#include <system_error>

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
    std::unique_lock<std::mutex> lock(mutex_);
    wake_.wait(lock, [this] { return !busy_; });
}

void SecondCore::Loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return busy_ || quit_; });
        if (busy_) {
            std::function<void()> job = std::move(job_);
            lock.unlock();
            job();
            lock.lock();
            busy_ = false;
            wake_.notify_all();
        } else if (quit_) {
            return;
        }
    }
}
