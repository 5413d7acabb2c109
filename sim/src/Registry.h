#pragma once
// Process-wide state of the simulator: the active model and the simulated descriptors.
// Its lock only guards those two and is never held while calling into a handle.

#include "ActiveModel.h"
#include "Handle.h"
#include "Recorder.h"
#include "SyncMutex.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

namespace simcam {

class Registry {
public:
    // Never destroyed: interposed calls may still arrive while the process exits.
    static Registry& instance();

    Recorder& recorder() { return recorder_; }

    bool active() const noexcept { return active_.load(std::memory_order_acquire); }
    std::shared_ptr<ActiveModel> model() const;
    // Installs `next` (null: pass-through) and returns the model it replaced.
    std::shared_ptr<ActiveModel> exchange(std::shared_ptr<ActiveModel> next);

    bool hasHandles() const noexcept { return handleCount_.load(std::memory_order_acquire) > 0; }
    void add(int fd, std::shared_ptr<Handle> handle);
    // `newFd` is a duplicate (dup, dup2, F_DUPFD) of simulated `oldFd`: the same handle.
    // False when `oldFd` is not simulated.
    bool alias(int oldFd, int newFd);
    std::shared_ptr<Handle> find(int fd) const;
    // Forgets `fd`; returns its handle when no other descriptor number refers to it.
    std::shared_ptr<Handle> take(int fd);
    // Every handle once, however many numbers refer to it.
    std::vector<std::shared_ptr<Handle>> handles() const;
    int descriptorCount() const noexcept { return handleCount_.load(std::memory_order_acquire); }

private:
    Registry() = default;
    bool referencedLocked(const std::shared_ptr<Handle>& handle) const;

    mutable SyncMutex m_;
    std::atomic<bool> active_{false};
    std::atomic<int> handleCount_{0};
    std::shared_ptr<ActiveModel> model_;
    std::map<int, std::shared_ptr<Handle>> handles_;
    Recorder recorder_;
};

} // namespace simcam
