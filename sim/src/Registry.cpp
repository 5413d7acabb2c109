#include "Registry.h"

#include <algorithm>

namespace simcam {

Registry& Registry::instance()
{
    static Registry* const registry = new Registry; // immortal on purpose, see header
    return *registry;
}

std::shared_ptr<ActiveModel> Registry::model() const
{
    std::lock_guard lock(m_);
    return model_;
}

std::shared_ptr<ActiveModel> Registry::exchange(std::shared_ptr<ActiveModel> next)
{
    std::lock_guard lock(m_);
    std::swap(model_, next);
    active_.store(model_ != nullptr, std::memory_order_release);
    return next;
}

void Registry::add(int fd, std::shared_ptr<Handle> handle)
{
    std::shared_ptr<Handle> previous;
    {
        std::lock_guard lock(m_);
        auto& slot = handles_[fd];
        previous = std::move(slot); // a number closed behind our back and reused
        slot = std::move(handle);
        handleCount_.store(int(handles_.size()), std::memory_order_release);
        if (previous && referencedLocked(previous))
            previous.reset();
    }
    if (previous)
        previous->shutdown(false);
}

bool Registry::alias(int oldFd, int newFd)
{
    std::shared_ptr<Handle> handle = find(oldFd);
    if (!handle)
        return false;
    handle->duplicated();
    add(newFd, std::move(handle));
    return true;
}

bool Registry::referencedLocked(const std::shared_ptr<Handle>& handle) const
{
    for (const auto& [fd, h] : handles_)
        if (h == handle)
            return true;
    return false;
}

std::shared_ptr<Handle> Registry::find(int fd) const
{
    std::lock_guard lock(m_);
    auto it = handles_.find(fd);
    return it == handles_.end() ? nullptr : it->second;
}

std::shared_ptr<Handle> Registry::take(int fd)
{
    std::lock_guard lock(m_);
    auto it = handles_.find(fd);
    if (it == handles_.end())
        return nullptr;
    std::shared_ptr<Handle> handle = std::move(it->second);
    handles_.erase(it);
    handleCount_.store(int(handles_.size()), std::memory_order_release);
    return referencedLocked(handle) ? nullptr : handle;
}

std::vector<std::shared_ptr<Handle>> Registry::handles() const
{
    std::lock_guard lock(m_);
    std::vector<std::shared_ptr<Handle>> all;
    all.reserve(handles_.size());
    for (const auto& [fd, h] : handles_)
        if (std::find(all.begin(), all.end(), h) == all.end())
            all.push_back(h);
    return all;
}

} // namespace simcam
