#pragma once
// An encoder put in place of the codec library's through its factory: it records the
// settings it is given and answers putFrame/getPacket from a script.

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>
#include <vector>

#include "Codec/MediaCodec.h"

namespace testsupport {

struct EncoderScript {
    std::mutex mutex;
    std::vector<std::pair<int, unsigned>> settings;  // in call order
    int configures = 0;
    int resets = 0;
    int destroyed = 0;
    int created = 0;
    std::deque<int> putResults;  // popped per putFrame; 0 when empty
    enum class Packet { Bytes, None, BadStatus, NoBuffer };
    std::deque<Packet> packets;  // popped per getPacket; Bytes when empty
    std::vector<uint8_t> packetBytes{0, 0, 0, 1, 0x65, 0x88};
    std::atomic<int> framesPut{0};
};

class ScriptedEncoder : public Codec::Encoder {
public:
    explicit ScriptedEncoder(std::shared_ptr<EncoderScript> script) : m_script(std::move(script)) {}
    ~ScriptedEncoder() override { locked([](EncoderScript& s) { return ++s.destroyed; }); }
    int set(Codec::Configure key, unsigned int value) override
    {
        return locked([&](EncoderScript& s) { return s.settings.emplace_back(int(key), value), 0; });
    }
    int configure() override { return locked([](EncoderScript& s) { return ++s.configures, 0; }); }
    int reset() override { return locked([](EncoderScript& s) { return ++s.resets, 0; }); }
    int putFrame(Codec::MediaFrame* frame) override
    {
        ++m_script->framesPut;
        return locked([&](EncoderScript& s) { return frame ? pop(s.putResults, 0) : -1; });
    }
    std::unique_ptr<Codec::MediaPacket> getPacket() override
    {
        return locked([](EncoderScript& s) -> std::unique_ptr<Codec::MediaPacket> {
            const EncoderScript::Packet kind = pop(s.packets, EncoderScript::Packet::Bytes);
            if (kind == EncoderScript::Packet::None)
                return nullptr;
            auto packet = std::make_unique<Codec::MediaPacket>();
            packet->status = kind == EncoderScript::Packet::BadStatus ? -1 : 0;
            if (kind != EncoderScript::Packet::NoBuffer)
                packet->buffer = std::make_unique<OwnedBuffer>(s.packetBytes).release();
            return packet;
        });
    }

private:
    struct OwnedBuffer : Codec::MediaBuffer {
        explicit OwnedBuffer(std::vector<uint8_t> b) : bytes(std::move(b))
        {
            data = bytes.data();
            size = length = uint32_t(bytes.size());
        }
        std::vector<uint8_t> bytes;
    };
    template <typename F>
    std::invoke_result_t<F, EncoderScript&> locked(F f)
    {
        std::lock_guard<std::mutex> lock(m_script->mutex);
        return f(*m_script);
    }
    template <typename T>
    static T pop(std::deque<T>& queue, T otherwise)
    {
        if (queue.empty())
            return otherwise;
        const T front = queue.front();
        queue.pop_front();
        return front;
    }
    std::shared_ptr<EncoderScript> m_script;
};

// Installs scripted encoders for the scope of a test.
class ScopedScriptedEncoder {
public:
    ScopedScriptedEncoder() : script(std::make_shared<EncoderScript>())
    {
        auto s = script;
        Codec::MediaCodec::setEncoderFactory([s](Codec::CodecType) -> Codec::Encoder* {
            {
                std::lock_guard<std::mutex> lock(s->mutex);
                ++s->created;
            }
            return new ScriptedEncoder(s);
        });
    }
    ~ScopedScriptedEncoder() { Codec::MediaCodec::setEncoderFactory({}); }
    std::shared_ptr<EncoderScript> script;
};

} // namespace testsupport
