#include "progress.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

namespace tandro {

namespace {

constexpr int kWidth = 30;

bool progress_wanted(const Options &opt)
{
    return !opt.json && !opt.quiet && isatty(STDERR_FILENO) == 1;
}

} // namespace

Progress::Progress(const Options &opt, const char *what, uint64_t total, const char *unit)
    : on_(progress_wanted(opt) && total > 0), what_(what), unit_(unit), total_(total)
{
}

Progress::~Progress()
{
    done(false);
}

std::string Progress::line(const char *what, uint64_t done, uint64_t total, const char *unit)
{
    if (total == 0)
        total = 1;
    if (done > total)
        done = total;
    const int fill = static_cast<int>(done * kWidth / total);
    const unsigned pct = static_cast<unsigned>(done * 100 / total);
    std::string out = std::string(what) + " [" + std::string(static_cast<size_t>(fill), '#') +
                      std::string(static_cast<size_t>(kWidth - fill), ' ') + "] ";
    char tail[96];
    std::snprintf(tail, sizeof tail, "%3u%% %llu/%llu %s", pct, static_cast<unsigned long long>(done),
                  static_cast<unsigned long long>(total), unit);
    return out + tail;
}

void Progress::update(uint64_t done)
{
    if (!on_)
        return;
    if (done > total_)
        done = total_;
    if (done == last_)
        return;
    last_ = done;
    drawn_ = true;
    std::fprintf(stderr, "\r%s", line(what_, done, total_, unit_).c_str());
    std::fflush(stderr);
}

void Progress::done(bool completed)
{
    if (!on_ || !drawn_)
        return;
    if (completed)
        update(total_);
    std::fprintf(stderr, "\n");
    drawn_ = false;
}

LinkProgress::LinkProgress(const Options &opt, ZEL_HANDLE hnd, const char *what, uint64_t expected)
    : bar_(opt, what, expected), hnd_(hnd), start_(hnd ? __atomic_load_n(&hnd->link_bytes, __ATOMIC_RELAXED) : 0),
      expected_(expected)
{
    if (!bar_.shown() || !hnd_)
        return;
    bar_.update(0);
    watcher_ = std::thread([this] {
        while (!stop_.load(std::memory_order_acquire)) {
            const uint64_t moved = __atomic_load_n(&hnd_->link_bytes, __ATOMIC_RELAXED) - start_;
            // Short of the end until the call has returned.
            bar_.update(moved < expected_ ? moved : expected_ - 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
}

void LinkProgress::stop()
{
    stop_.store(true, std::memory_order_release);
    if (watcher_.joinable())
        watcher_.join();
}

void LinkProgress::done(bool completed)
{
    stop();
    bar_.done(completed);
}

LinkProgress::~LinkProgress()
{
    stop();
}

} // namespace tandro
