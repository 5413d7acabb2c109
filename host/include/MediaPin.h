#pragma once
// Pins connect a producing element to a consuming one. The consumer's input pin owns a pool
// of frames; the producer borrows a free frame (dequeue), fills it and hands it over
// (queue); the consumer takes delivered frames and releases them back to the pool. A slow
// consumer therefore throttles the producer: dequeue waits a bounded time and answers -3.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "MediaFormat.h"
#include "MediaFrame.h"

class IMediaElement;
class PinConnection;

// dequeue/queue answers.
enum PinResult {
    PIN_OK = 0,
    PIN_REFUSED = -1,  // frame not from this pool, or larger than its capacity
    PIN_GONE = -2,     // no consumer connected, or the consumer has gone
    PIN_LAGGING = -3,  // no free frame within the wait: the consumer is behind
};

struct PinStats {
    uint64_t delivered = 0;  // frames handed to the consumer
    uint64_t lagging = 0;    // dequeue answers of -3
    uint64_t refused = 0;    // frames queue() refused
};

class MediaInputPin {
public:
    static constexpr unsigned int kDefaultFrameCapacity = 3u * 1920u * 1088u;
    static constexpr int kDefaultPoolFrames = 8;

    explicit MediaInputPin(IMediaElement* owner = nullptr, int poolFrames = kDefaultPoolFrames,
                           unsigned int frameCapacity = kDefaultFrameCapacity);
    ~MediaInputPin();  // the consumer goes away: producers then get PIN_GONE
    MediaInputPin(const MediaInputPin&) = delete;
    MediaInputPin& operator=(const MediaInputPin&) = delete;

    // A consumer that would rather be called than woken: each delivered frame is handed to
    // `handler` on the producer's thread, inside its queue(), and the handler releases it.
    // That saves a thread switch a frame; a slow handler holds the producer up, as a full
    // pool would. take() then finds nothing. close() (and the destructor) waits for a call
    // in progress, so neither may be called from inside the handler.
    using Handler = std::function<void(MediaFrame*)>;
    void setHandler(Handler handler);

    // Oldest delivered frame, waiting up to timeoutMs (negative: no limit); null on timeout
    // or when closed and drained.
    MediaFrame* take(int timeoutMs);
    // Gives a taken frame back to the pool.
    void release(MediaFrame* frame);
    // The consumer stops reading; frames in flight stay valid until released.
    void close();

    IMediaElement* owner() const { return m_owner; }
    unsigned int frameCapacity() const;

private:
    friend class MediaOutputPin;
    std::shared_ptr<PinConnection> m_connection;
    IMediaElement* m_owner;
};

// An output pin made with an owner belongs to the session: it is deleted when its owner is
// destroyed (after the owner's own destructor has run). Anyone else deleting it leaves the
// session a double delete, which this library answers with an abort, as it does a second
// delete of any pin.
enum class PinFate { Alive, DeletedByOwner, DeletedByOther, Unknown };

class MediaOutputPin {
public:
    MediaOutputPin(MajorType major, MinorType minor, MediaCodecType codec, MediaRawType raw,
                   IMediaElement* owner);
    ~MediaOutputPin();

    // What became of the pin made at this address most recently.
    static PinFate fate(const MediaOutputPin* pin);
    MediaOutputPin(const MediaOutputPin&) = delete;
    MediaOutputPin& operator=(const MediaOutputPin&) = delete;

    // Borrows a free frame: PIN_OK with *frame set, PIN_LAGGING when none came free within
    // timeoutMs, PIN_GONE without a consumer. `flags` is reserved (0).
    int dequeue(MediaFrame** frame, int timeoutMs, int flags);
    // Delivers a borrowed frame to the consumer. A frame whose size exceeds its capacity is
    // refused (PIN_REFUSED) and goes back to the pool unread.
    int queue(MediaFrame* frame);

    void connect(MediaInputPin* input);
    void disconnect();
    PinStats stats() const;

    // Lets a host (or a test) answer dequeue itself: a value is returned as the answer
    // without a frame; nullopt falls through to the pool.
    using DequeueHook = std::function<std::optional<int>(int timeoutMs)>;
    void setDequeueHook(DequeueHook hook);

    MajorType majorType() const { return m_major; }
    MinorType minorType() const { return m_minor; }
    MediaCodecType codecType() const { return m_codec; }
    MediaRawType rawType() const { return m_raw; }
    IMediaElement* owner() const { return m_owner; }

private:
    std::shared_ptr<PinConnection> connection() const;

    MajorType m_major;
    MinorType m_minor;
    MediaCodecType m_codec;
    MediaRawType m_raw;
    IMediaElement* m_owner;
    uint64_t m_serial;
    mutable std::mutex m_mutex;  // guards m_connection and m_hook
    std::shared_ptr<PinConnection> m_connection;
    DequeueHook m_hook;
};
