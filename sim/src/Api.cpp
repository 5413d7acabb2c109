// The control API of SimCamera.h, and configuration from SIMCAM_MODEL at load time.
#include "simcam/SimCamera.h"

#include "ActiveModel.h"
#include "DmabufMapping.h"
#include "MmapBuffer.h"
#include "Interposer.h"
#include "Registry.h"
#include "StreamQueue.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

namespace simcam {

namespace {

// Serialises configure/clear; interposed calls never take it.
std::mutex& configMutex()
{
    static std::mutex m;
    return m;
}

void pokeAll()
{
    for (const auto& h : Registry::instance().handles())
        h->poke();
}

void install(std::shared_ptr<ActiveModel> next)
{
    Registry& registry = Registry::instance();
    std::shared_ptr<ActiveModel> previous = registry.exchange(std::move(next));
    if (previous)
        previous->retire();
    for (const auto& h : registry.handles())
        if (h->stale())
            h->shutdown(true);
    registry.recorder().clear();
    // `previous` goes here, and with it its shadow tree, unless a path call still holds it.
}

std::shared_ptr<ActiveModel> requireModel()
{
    auto model = Registry::instance().model();
    if (!model)
        throw std::logic_error("simcam: no model is configured");
    return model;
}

std::vector<std::shared_ptr<NodeState>> targets(const ActiveModel& model, std::string_view node)
{
    if (node.empty())
        return model.nodes();
    if (auto n = model.nodeByName(node))
        return {n};
    throw std::invalid_argument("simcam: no node '" + std::string(node) + "'");
}

std::shared_ptr<CameraState> requireCamera(int index)
{
    if (auto c = requireModel()->camera(index))
        return c;
    throw std::invalid_argument("simcam: no camera " + std::to_string(index));
}

// Applies SIMCAM_MODEL when the library loads (before main in LD_PRELOAD use). A bad
// value stops the process: silently running without the camera would mislead.
__attribute__((constructor)) void configureFromEnvironment()
{
    const char* text = std::getenv("SIMCAM_MODEL");
    if (!text || !*text || std::string_view(text) == "off" || std::string_view(text) == "none")
        return;
    try {
        configure(std::string_view(text));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "simcam: SIMCAM_MODEL=\"%s\": %s\n", text, e.what());
        std::_Exit(2);
    }
}

// Joins clocks and removes the shadow tree at exit.
struct ClearAtExit {
    ~ClearAtExit()
    {
        try {
            clear();
        } catch (...) {
        }
    }
} g_clearAtExit;

} // namespace

void configure(const Model& model)
{
    std::lock_guard lock(configMutex());
    install(std::make_shared<ActiveModel>(model));
}

void configure(std::string_view text)
{
    configure(parseModel(text));
}

void clear()
{
    std::lock_guard lock(configMutex());
    install(nullptr);
}

bool active()
{
    return Registry::instance().active();
}

bool interposing()
{
    interposerProbeSeen() = false;
    int fd = ::open(kInterposerProbePath, O_RDONLY | O_CLOEXEC);
    if (fd >= 0)
        ::close(fd);
    return interposerProbeSeen();
}

std::string shadowRoot()
{
    auto model = Registry::instance().model();
    return model ? model->root() : std::string();
}

void setFaults(const Faults& faults, std::string_view node)
{
    auto model = requireModel();
    for (const auto& n : targets(*model, node))
        n->setFaults(faults);
    pokeAll();
}

void modifyFaults(const std::function<void(Faults&)>& change, std::string_view node)
{
    auto model = requireModel();
    for (const auto& n : targets(*model, node)) {
        Faults f = n->faults();
        change(f);
        n->setFaults(f);
    }
    pokeAll();
}

Faults faults(std::string_view node)
{
    auto model = requireModel();
    if (auto n = model->nodeByName(node))
        return n->faults();
    throw std::invalid_argument("simcam: no node '" + std::string(node) + "'");
}

void setUnthrottled(bool unthrottled)
{
    auto model = requireModel();
    for (const auto& n : model->nodes())
        n->unthrottled.store(unthrottled);
    pokeAll();
}

void setTimePerFrame(std::string_view node, Interval interval)
{
    auto model = requireModel();
    std::optional<Interval> forced;
    if (interval.denominator != 0 && interval.numerator != 0)
        forced = interval;
    for (const auto& n : targets(*model, node))
        n->forceTimePerFrame(forced);
    pokeAll();
}

void unplug(int camera)
{
    requireCamera(camera)->unplug();
    pokeAll();
}

void replug(int camera)
{
    requireCamera(camera)->reenumerate();
    pokeAll();
}

std::vector<uint8_t> extensionControl(int camera, uint8_t selector)
{
    return requireCamera(camera)->extensionControl(selector);
}

void setExtensionControl(int camera, uint8_t selector, std::vector<uint8_t> bytes)
{
    requireCamera(camera)->setExtensionControl(selector, std::move(bytes));
}

Stats stats()
{
    Registry& registry = Registry::instance();
    Stats s = registry.recorder().counters();
    const auto handles = registry.handles();
    s.openDescriptors = registry.descriptorCount();
    for (const auto& h : handles)
        h->addGauges(s);
    s.mappings = DmabufMapping::live();
    s.mmapBuffers = MmapBuffer::live();
    s.clockThreads = StreamQueue::runningClocks();
    s.replugTimers = CameraState::replugTimers();
    return s;
}

void resetStats()
{
    Registry::instance().recorder().clear();
}

bool waitFor(const std::function<bool(const Stats&)>& predicate, std::chrono::milliseconds timeout)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        if (predicate(stats()))
            return true;
        const auto now = Clock::now();
        if (now >= deadline)
            return false;
        // Counters notify; the current-state part is polled.
        Registry::instance().recorder().waitForChange(
            std::min(deadline, now + std::chrono::milliseconds(5)));
    }
}

bool waitForFrames(uint64_t count, std::chrono::milliseconds timeout)
{
    return waitFor([count](const Stats& s) { return s.framesDelivered >= count; }, timeout);
}

} // namespace simcam
