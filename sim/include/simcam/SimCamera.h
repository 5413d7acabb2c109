#pragma once
// Control of the simulated UVC camera from inside the process that uses it.
//
// libsimcam.so interposes the C library's open/close/ioctl/opendir and the path calls of
// the sysfs walk. With a model configured, the model's /dev nodes, its usbfs nodes and
// /sys/class/video4linux are simulated; every other path and descriptor goes to the C
// library untouched. Without a model the library is a pure pass-through.
//
// Link it first (before Qt, GTest, ...) with -Wl,--no-as-needed, or load it with
// LD_PRELOAD and describe the camera in SIMCAM_MODEL. All functions are thread-safe and may
// be called while another thread streams from the camera.

#include "simcam/Model.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace simcam {

// ---- Configuration -------------------------------------------------------------------

// Replaces the active model. Descriptors opened under the previous model stay open but
// fail every ioctl with ENODEV (their clocks are stopped and their buffers released).
// Throws std::invalid_argument for an inconsistent model (duplicate node names, ...).
void configure(const Model& model);
void configure(std::string_view text); // parseModel(text)

// Back to pass-through. Open simulated descriptors behave as after a reconfigure.
void clear();

bool active();

// True when this process's open() reaches the simulator, i.e. the library was loaded
// before the C library in symbol lookup order. Tests should assert it first.
bool interposing();

// Private directory that holds this model's /dev listing and sysfs tree (empty if none).
std::string shadowRoot();

// Configures in the constructor, clears in the destructor.
class ScopedModel {
public:
    explicit ScopedModel(const Model& model) { configure(model); }
    explicit ScopedModel(std::string_view text) { configure(text); }
    ~ScopedModel() { clear(); }
    ScopedModel(const ScopedModel&) = delete;
    ScopedModel& operator=(const ScopedModel&) = delete;
};

// ---- Behaviour changes at run time ---------------------------------------------------
// `node` is a node name ("video0"); empty means every node of every camera.
// Throws std::invalid_argument for an unknown node, std::logic_error without a model.

void setFaults(const Faults& faults, std::string_view node = {});
void modifyFaults(const std::function<void(Faults&)>& change, std::string_view node = {});
Faults faults(std::string_view node);

void setUnthrottled(bool unthrottled);

// Forces the frame interval G_PARM reports and the clock runs at, over S_FMT/S_PARM.
// A zero denominator removes the override.
void setTimePerFrame(std::string_view node, Interval interval);

// Unplugs the camera at once: its streams wake with ENODEV, opens fail ENOENT. With the
// camera's `replugMs` set it comes back by itself that long after.
void unplug(int camera = 0);
// Brings it back (as a successful USB reset does). Old descriptors stay dead.
void replug(int camera = 0);

// Bytes the extension unit holds for a selector (SET_CUR stored, or preset here).
std::vector<uint8_t> extensionControl(int camera, uint8_t selector);
void setExtensionControl(int camera, uint8_t selector, std::vector<uint8_t> bytes);

// ---- Observation ---------------------------------------------------------------------

struct OpenRecord {
    std::string path;
    int flags = 0;
    int result = -1; // descriptor or -1
    int error = 0;   // errno when result is -1
};

struct IoctlRecord {
    std::string path;          // node or usbfs path of the descriptor
    unsigned long request = 0;
    int result = 0;
    int error = 0;
};

struct Stats {
    // Since the last resetStats():
    std::vector<OpenRecord> opens;                 // simulated paths only, in call order
    std::map<unsigned long, uint64_t> ioctlCounts; // by request, simulated descriptors only
    std::vector<IoctlRecord> ioctls;               // in order; the most recent kIoctlLogLimit
    std::map<std::string, int> resets;             // usbfs path -> USBDEVFS_RESET count
    uint64_t framesFilled = 0;    // frames written into queued buffers
    uint64_t framesDelivered = 0; // successful VIDIOC_DQBUFs
    uint64_t framesDropped = 0;   // frame times with no buffer queued
    // When each filled frame became ready to dequeue (steady clock), in fill order; the
    // most recent kReadyLogLimit.
    std::vector<std::chrono::steady_clock::time_point> readyTimes;

    // Current state, whatever resetStats() did:
    int openDescriptors = 0;  // simulated descriptors (video and usbfs) not yet closed
    int buffersQueued = 0;    // buffers held by the driver (queued or filled, not dequeued)
    int buffersDequeued = 0;  // allocated buffers held by user space
    int streams = 0;          // descriptors streaming
    int mappings = 0;         // imported DMA-BUF mappings held
    int mmapBuffers = 0;      // MMAP buffers alive (freed buffers live on while a client maps them)
    int clockThreads = 0;     // frame clock threads running
    int replugTimers = 0;     // replug=MS timer threads of the model's cameras (until cleared)

    bool streaming() const { return streams > 0; }
    uint64_t ioctlCount(unsigned long request) const
    {
        auto it = ioctlCounts.find(request);
        return it == ioctlCounts.end() ? 0 : it->second;
    }
    int resetCount(const std::string& path) const
    {
        auto it = resets.find(path);
        return it == resets.end() ? 0 : it->second;
    }
};

constexpr size_t kIoctlLogLimit = 10000;
constexpr size_t kReadyLogLimit = 100000;

Stats stats();
void resetStats();

// Waits until framesDelivered >= count; false on timeout.
bool waitForFrames(uint64_t count, std::chrono::milliseconds timeout);
// Waits until the predicate holds for a stats() snapshot; false on timeout.
bool waitFor(const std::function<bool(const Stats&)>& predicate,
             std::chrono::milliseconds timeout);

// "VIDIOC_DQBUF", "USBDEVFS_RESET", ... or the number in hex.
std::string ioctlName(unsigned long request);

} // namespace simcam
