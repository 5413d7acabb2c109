#include "MediaPin.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <unordered_map>
#include <vector>

#include "IMediaElement.h"
#include "Logger.h"
#include "Ring.h"

// One producer-consumer link: the pool of frames, the free list and the delivered queue.
// Shared by both pins so that frames in flight outlive whichever side goes first.
class PinConnection {
public:
    PinConnection(int frames, unsigned int capacity) : m_capacity(capacity)
    {
        m_frames.reserve(size_t(std::max(frames, 1)));
        for (int i = 0; i < std::max(frames, 1); ++i) {
            m_frames.push_back(std::make_unique<MediaFrame>(capacity));
            m_free.push_back(m_frames.back().get());
        }
    }

    int borrow(MediaFrame** frame, int timeoutMs)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        auto ready = [this] { return m_closed || !m_free.empty(); };
        if (timeoutMs < 0)
            m_freed.wait(lock, ready);
        else
            m_freed.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready);
        if (m_closed)
            return PIN_GONE;
        if (m_free.empty()) {
            ++m_stats.lagging;
            return PIN_LAGGING;
        }
        *frame = m_free.back();
        m_free.pop_back();
        return PIN_OK;
    }

    int deliver(MediaFrame* frame)
    {
        int result = PIN_OK;
        bool handled = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!owns(frame)) {
                Logger::logger_printf(0, "%s:%d ERROR: queue refused: frame %p is not from this pin's pool\n",
                                      __func__, __LINE__, static_cast<void*>(frame));
                ++m_stats.refused;
                return PIN_REFUSED;
            }
            if (frame->size() < 0 || unsigned(frame->size()) > frame->capacity()) {
                Logger::logger_printf(0, "%s:%d ERROR: queue refused: frame size %d exceeds capacity %u\n",
                                      __func__, __LINE__, frame->size(), frame->capacity());
                ++m_stats.refused;
                result = PIN_REFUSED;
            } else if (m_closed) {
                result = PIN_GONE;
            }
            if (result == PIN_OK) {
                ++m_stats.delivered;
                handled = bool(m_handler);
                if (!handled)
                    m_delivered.push_back(frame);
            } else {
                recycleLocked(frame);
            }
        }
        if (handled) {
            std::lock_guard<std::mutex> calling(m_handlerMutex);
            if (m_handler)
                m_handler(frame);
            else
                release(frame);  // closed meanwhile
            return result;
        }
        // Notified after unlocking: a waiter woken under the lock would block on it at once.
        (result == PIN_OK ? m_arrived : m_freed).notify_one();
        return result;
    }

    MediaFrame* take(int timeoutMs)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        auto ready = [this] { return m_closed || !m_delivered.empty(); };
        if (timeoutMs < 0)
            m_arrived.wait(lock, ready);
        else
            m_arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready);
        if (m_delivered.empty())
            return nullptr;
        MediaFrame* frame = m_delivered.front();
        m_delivered.pop_front();
        return frame;
    }

    void release(MediaFrame* frame)
    {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!owns(frame))
                return;
            recycleLocked(frame);
        }
        m_freed.notify_one();
    }

    void close()
    {
        // Waits for a handler call in progress: the consumer may go once this returns.
        std::lock_guard<std::mutex> calling(m_handlerMutex);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_handler = nullptr;
        m_closed = true;
        // Undelivered frames are no longer anyone's to read.
        m_delivered.forEach([this](MediaFrame* frame) { recycleLocked(frame); });
        m_delivered.clear();
        m_freed.notify_all();
        m_arrived.notify_all();
    }

    void setHandler(MediaInputPin::Handler handler)
    {
        std::lock_guard<std::mutex> calling(m_handlerMutex);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_handler = std::move(handler);
    }

    PinStats stats() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_stats;
    }

    unsigned int capacity() const { return m_capacity; }

private:
    bool owns(MediaFrame* frame) const
    {
        return std::any_of(m_frames.begin(), m_frames.end(),
                           [frame](const std::unique_ptr<MediaFrame>& f) { return f.get() == frame; });
    }

    // The caller notifies m_freed once it has let go of the lock.
    void recycleLocked(MediaFrame* frame)
    {
        frame->setSize(0);
        m_free.push_back(frame);
    }

    const unsigned int m_capacity;
    // Changed only under both locks; deliver() reads it under either.
    MediaInputPin::Handler m_handler;
    std::mutex m_handlerMutex;  // held through a handler call; taken before m_mutex
    mutable std::mutex m_mutex;
    std::condition_variable m_freed;
    std::condition_variable m_arrived;
    std::vector<std::unique_ptr<MediaFrame>> m_frames;
    // Last freed, first lent: a steady stream keeps reusing the same warm frame or two
    // instead of cycling through every large buffer of the pool.
    std::vector<MediaFrame*> m_free;
    Ring<MediaFrame*> m_delivered;
    bool m_closed = false;
    PinStats m_stats;
};

MediaInputPin::MediaInputPin(IMediaElement* owner, int poolFrames, unsigned int frameCapacity)
    : m_connection(std::make_shared<PinConnection>(poolFrames, frameCapacity)), m_owner(owner)
{
}

MediaInputPin::~MediaInputPin() { m_connection->close(); }

void MediaInputPin::setHandler(Handler handler) { m_connection->setHandler(std::move(handler)); }
MediaFrame* MediaInputPin::take(int timeoutMs) { return m_connection->take(timeoutMs); }
void MediaInputPin::release(MediaFrame* frame) { m_connection->release(frame); }
void MediaInputPin::close() { m_connection->close(); }
unsigned int MediaInputPin::frameCapacity() const { return m_connection->capacity(); }

namespace {

// Every output pin by address, with the serial of the one made there last and its fate.
struct PinRecord {
    uint64_t serial = 0;
    PinFate fate = PinFate::Alive;
};
// Never destroyed: hosts delete elements (and so their pins) during the process's exit.
struct PinRegistry {
    std::mutex mutex;
    std::unordered_map<const MediaOutputPin*, PinRecord> pins;
    uint64_t nextSerial = 1;
};
PinRegistry& registry()
{
    static PinRegistry* instance = new PinRegistry;
    return *instance;
}
thread_local bool t_ownerDeleting = false;

[[noreturn]] void pinDeletedTwice(const MediaOutputPin* pin, PinFate first)
{
    std::fprintf(stderr, "MediaOutputPin: pin %p deleted twice (first by %s)\n", static_cast<const void*>(pin),
                 first == PinFate::DeletedByOwner ? "its owner" : "someone other than its owner");
    std::fflush(stderr);
    std::abort();
}

// The session's delete of a pin whose owner has gone.
void deleteOwnedPin(MediaOutputPin* pin, uint64_t serial)
{
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        const PinRecord& record = registry().pins[pin];
        if (record.serial != serial || record.fate != PinFate::Alive)
            pinDeletedTwice(pin, record.serial == serial ? record.fate : PinFate::DeletedByOther);
    }
    t_ownerDeleting = true;
    delete pin;
    t_ownerDeleting = false;
}

} // namespace

MediaOutputPin::MediaOutputPin(MajorType major, MinorType minor, MediaCodecType codec,
                               MediaRawType raw, IMediaElement* owner)
    : m_major(major), m_minor(minor), m_codec(codec), m_raw(raw), m_owner(owner)
{
    {
        std::lock_guard<std::mutex> lock(registry().mutex);
        m_serial = registry().nextSerial++;
        registry().pins[this] = PinRecord{m_serial, PinFate::Alive};
    }
    if (owner) {
        // Without a context object the call is direct, on the thread deleting the owner.
        QObject::connect(owner, &QObject::destroyed, [pin = this, serial = m_serial] { deleteOwnedPin(pin, serial); });
    }
}

MediaOutputPin::~MediaOutputPin()
{
    std::lock_guard<std::mutex> lock(registry().mutex);
    // Only the address is looked at before the record says the pin is alive.
    PinRecord& record = registry().pins[this];
    if (record.fate != PinFate::Alive)
        pinDeletedTwice(this, record.fate);
    record.fate = t_ownerDeleting ? PinFate::DeletedByOwner : PinFate::DeletedByOther;
}

PinFate MediaOutputPin::fate(const MediaOutputPin* pin)
{
    std::lock_guard<std::mutex> lock(registry().mutex);
    auto it = registry().pins.find(pin);
    return it == registry().pins.end() ? PinFate::Unknown : it->second.fate;
}

std::shared_ptr<PinConnection> MediaOutputPin::connection() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connection;
}

int MediaOutputPin::dequeue(MediaFrame** frame, int timeoutMs, int flags)
{
    (void)flags;
    if (!frame)
        return PIN_REFUSED;
    *frame = nullptr;
    DequeueHook hook;
    std::shared_ptr<PinConnection> link;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        hook = m_hook;
        link = m_connection;
    }
    if (hook) {
        if (const std::optional<int> answer = hook(timeoutMs))
            return *answer;
    }
    if (!link)
        return PIN_GONE;
    return link->borrow(frame, timeoutMs);
}

int MediaOutputPin::queue(MediaFrame* frame)
{
    auto link = connection();
    if (!link || !frame)
        return link ? PIN_REFUSED : PIN_GONE;
    return link->deliver(frame);
}

void MediaOutputPin::connect(MediaInputPin* input)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_connection = input ? input->m_connection : nullptr;
}

void MediaOutputPin::disconnect() { connect(nullptr); }

void MediaOutputPin::setDequeueHook(DequeueHook hook)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_hook = std::move(hook);
}

PinStats MediaOutputPin::stats() const
{
    auto link = connection();
    return link ? link->stats() : PinStats{};
}
