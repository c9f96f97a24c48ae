#include "ingest/collectors/MountProbes.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

namespace QOR {

MountRoom askMount(const std::string& path) {
    struct statvfs answer {};
    if (::statvfs(path.c_str(), &answer) != 0) return {.error = errno};
    const std::uint64_t unit = answer.f_frsize;
    const std::uint64_t used = answer.f_blocks - answer.f_bfree;
    return {.bytes = (used + answer.f_bavail) * unit,
            .freeBytes = answer.f_bavail * unit,
            .inodes = answer.f_files,
            .freeInodes = answer.f_favail};
}

struct MountProbes::Probe {
    std::mutex mutex;
    std::condition_variable ended;
    std::optional<MountRoom> answer;

    void end(const MountRoom& room) {
        const std::lock_guard lock(mutex);
        answer = room;
        ended.notify_all();
    }
    bool hasEnded() {
        const std::lock_guard lock(mutex);
        return answer.has_value();
    }
    std::optional<MountRoom> wait(std::chrono::milliseconds patience) {
        std::unique_lock lock(mutex);
        ended.wait_for(lock, patience, [this] { return answer.has_value(); });
        return answer;
    }
};

MountProbes::MountProbes(Ask ask) : m_ask(std::make_shared<const Ask>(std::move(ask))) {}

std::optional<MountRoom> MountProbes::ask(const std::string& key, const std::string& path,
                                          std::chrono::milliseconds patience) {
    std::erase_if(m_waiting, [](const auto& waiting) { return waiting.second->hasEnded(); });
    if (m_waiting.contains(key)) return std::nullopt;
    const auto probe = std::make_shared<Probe>();
    std::thread([probe, path, question = m_ask] { probe->end((*question)(path)); }).detach();
    std::optional<MountRoom> room = probe->wait(patience);
    if (!room) m_waiting.emplace(key, probe);
    return room;
}

}  // namespace QOR
