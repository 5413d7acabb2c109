#pragma once
// Counters and call logs of the simulated devices. Its lock is a leaf: it is taken last
// and nothing else is locked under it.

#include "Ring.h"
#include "simcam/SimCamera.h"

#include <condition_variable>
#include <mutex>

namespace simcam {

class Recorder {
public:
    void open(const std::string& path, int flags, int result, int error);
    void ioctl(const std::string& path, unsigned long request, int result, int error);
    void reset(const std::string& path);
    void frameFilled();
    void frameDelivered();
    void frameDropped();

    // The counted part of Stats (the current-state part is filled by the caller).
    Stats counters() const;
    void clear();

    // Waits until the counters changed or the deadline passed.
    void waitForChange(std::chrono::steady_clock::time_point deadline) const;

private:
    void changed();

    mutable std::mutex m_;
    mutable std::condition_variable cv_;
    uint64_t version_ = 0;
    Stats counts_;
    Ring<IoctlRecord> ioctls_; // the most recent kIoctlLogLimit
};

} // namespace simcam
