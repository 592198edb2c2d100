// Progress bars on standard error for work that takes a while: only on a terminal, never under --json or
// --quiet, so that pipes and scripts see nothing of them.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "tools/cli.h"
#include "tandro.h"

namespace tandro {

class Progress {
public:
    // A bar for `total` units (bytes unless `unit` says otherwise).
    Progress(const Options &opt, const char *what, uint64_t total, const char *unit = "bytes");
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // Done so far (clamped to the total); redraws only when the bar or count changes.
    void update(uint64_t done);
    // The line ended: filled when the work completed, else where the bar stood. The destructor ends a line
    // left open as incomplete work.
    void done(bool completed);
    bool shown() const { return on_; }

    // The bar's text for `done` of `total`, as drawn (without the carriage return).
    static std::string line(const char *what, uint64_t done, uint64_t total, const char *unit);

private:
    bool on_;
    bool drawn_ = false;
    const char *what_;
    const char *unit_;
    uint64_t total_;
    uint64_t last_ = UINT64_MAX;
};

// Follows one long library call on a handle by the bytes its link moves, for operations that do all their
// transfers in a single call. `expected` is the payload the call moves; the bar stays short of its end
// until done(), since frames carry a little more than the payload.
class LinkProgress {
public:
    LinkProgress(const Options &opt, ZEL_HANDLE hnd, const char *what, uint64_t expected);
    ~LinkProgress();
    LinkProgress(const LinkProgress &) = delete;
    LinkProgress &operator=(const LinkProgress &) = delete;

    void done(bool completed);

private:
    void stop();

    Progress bar_;
    ZEL_HANDLE hnd_;
    uint64_t start_;
    uint64_t expected_;
    std::atomic<bool> stop_{false};
    std::thread watcher_;
};

} // namespace tandro
