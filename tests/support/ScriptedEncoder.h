#pragma once
// An encoder put in place of the codec library's through its factory: it records the
// settings it is given and answers putFrame/getPacket from a script.

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
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
    ~ScriptedEncoder() override
    {
        std::lock_guard<std::mutex> lock(m_script->mutex);
        ++m_script->destroyed;
    }
    int set(Codec::Configure key, unsigned int value) override
    {
        std::lock_guard<std::mutex> lock(m_script->mutex);
        m_script->settings.emplace_back(int(key), value);
        return 0;
    }
    int configure() override
    {
        std::lock_guard<std::mutex> lock(m_script->mutex);
        ++m_script->configures;
        return 0;
    }
    int putFrame(Codec::MediaFrame* frame) override
    {
        ++m_script->framesPut;
        std::lock_guard<std::mutex> lock(m_script->mutex);
        if (!frame)
            return -1;
        if (m_script->putResults.empty())
            return 0;
        const int r = m_script->putResults.front();
        m_script->putResults.pop_front();
        return r;
    }
    std::unique_ptr<Codec::MediaPacket> getPacket() override
    {
        std::lock_guard<std::mutex> lock(m_script->mutex);
        EncoderScript::Packet kind = EncoderScript::Packet::Bytes;
        if (!m_script->packets.empty()) {
            kind = m_script->packets.front();
            m_script->packets.pop_front();
        }
        if (kind == EncoderScript::Packet::None)
            return nullptr;
        auto packet = std::make_unique<Codec::MediaPacket>();
        packet->status = kind == EncoderScript::Packet::BadStatus ? -1 : 0;
        if (kind != EncoderScript::Packet::NoBuffer) {
            auto buffer = std::make_unique<OwnedBuffer>(m_script->packetBytes);
            packet->buffer = buffer.release();
        }
        return packet;
    }
    int reset() override
    {
        std::lock_guard<std::mutex> lock(m_script->mutex);
        ++m_script->resets;
        return 0;
    }

private:
    struct OwnedBuffer : Codec::MediaBuffer {
        explicit OwnedBuffer(std::vector<uint8_t> b) : bytes(std::move(b))
        {
            data = bytes.data();
            length = uint32_t(bytes.size());
            size = length;
        }
        std::vector<uint8_t> bytes;
    };
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
