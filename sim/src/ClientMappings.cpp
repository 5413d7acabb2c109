#include "ClientMappings.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

namespace simcam::clientMappings {

namespace {

struct Table {
    std::mutex m;
    std::map<uintptr_t, std::shared_ptr<MmapBuffer>> byAddress;
    std::atomic<size_t> count{0};
};

Table& table()
{
    static Table* const t = new Table; // immortal: munmap may come while the process exits
    return *t;
}

} // namespace

void add(void* addr, size_t /*length*/, std::shared_ptr<MmapBuffer> buffer)
{
    Table& t = table();
    buffer->mapped();
    std::shared_ptr<MmapBuffer> replaced;
    std::lock_guard lock(t.m);
    auto& slot = t.byAddress[reinterpret_cast<uintptr_t>(addr)];
    replaced = std::exchange(slot, std::move(buffer)); // MAP_FIXED over an old one
    if (replaced)
        replaced->unmapped();
    t.count.store(t.byAddress.size());
}

void remove(void* addr, size_t length)
{
    Table& t = table();
    if (t.count.load() == 0)
        return;
    std::vector<std::shared_ptr<MmapBuffer>> released; // freed outside the lock
    {
        std::lock_guard lock(t.m);
        const uintptr_t begin = reinterpret_cast<uintptr_t>(addr);
        auto it = t.byAddress.lower_bound(begin);
        while (it != t.byAddress.end() && it->first - begin < length) {
            it->second->unmapped();
            released.push_back(std::move(it->second));
            it = t.byAddress.erase(it);
        }
        t.count.store(t.byAddress.size());
    }
}

} // namespace simcam::clientMappings
