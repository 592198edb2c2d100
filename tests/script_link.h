// A scripted reader for unit tests: each write of the host releases the next scripted reply, a purge
// drops what the host has not read, and a read of more than is there comes back short, as a time-out.
#ifndef ZEL_TESTS_SCRIPT_LINK_H
#define ZEL_TESTS_SCRIPT_LINK_H

#include <cstdint>
#include <deque>
#include <vector>

#include "core/internal.h"
#include "frame_helpers.h"
#include "transport/port.h"
#include "zel_handle.h"

namespace zeltest {

class ScriptLink {
public:
    ScriptLink()
    {
        hooks_ = {&ScriptLink::read_fn, &ScriptLink::write_fn, &ScriptLink::purge_fn, this, &ScriptLink::available_fn};
        zel::set_link_hooks(&hooks_);
        zel_handle_init(&record);
        record.comm.use = zel::kPortHook;
    }
    ~ScriptLink() { zel::set_link_hooks(nullptr); }
    ScriptLink(const ScriptLink &) = delete;
    ScriptLink &operator=(const ScriptLink &) = delete;

    // The reply to the next write of the host (an empty one: silence).
    void reply(const Bytes &bytes) { replies_.push_back(bytes); }
    // Bytes waiting for the host now, before any write.
    void preload(const Bytes &bytes) { pending_.insert(pending_.end(), bytes.begin(), bytes.end()); }

    zel_handle_record record;
    Bytes sent;
    std::vector<Bytes> writes;
    int purges = 0;

private:
    static uint32_t read_fn(void *ctx, uint8_t *buf, uint32_t n)
    {
        auto *self = static_cast<ScriptLink *>(ctx);
        uint32_t i = 0;
        for (; i < n && !self->pending_.empty(); ++i) {
            buf[i] = self->pending_.front();
            self->pending_.pop_front();
        }
        return i;
    }
    static uint32_t write_fn(void *ctx, const uint8_t *buf, uint32_t n)
    {
        auto *self = static_cast<ScriptLink *>(ctx);
        self->sent.insert(self->sent.end(), buf, buf + n);
        self->writes.emplace_back(buf, buf + n);
        if (!self->replies_.empty()) {
            const Bytes r = self->replies_.front();
            self->replies_.pop_front();
            self->pending_.insert(self->pending_.end(), r.begin(), r.end());
        }
        return n;
    }
    static uint32_t available_fn(void *ctx)
    {
        return static_cast<uint32_t>(static_cast<ScriptLink *>(ctx)->pending_.size());
    }
    static void purge_fn(void *ctx)
    {
        auto *self = static_cast<ScriptLink *>(ctx);
        self->pending_.clear();
        ++self->purges;
    }

    zel::LinkHooks hooks_{};
    std::deque<Bytes> replies_;
    std::deque<uint8_t> pending_;
};

} // namespace zeltest

#endif
