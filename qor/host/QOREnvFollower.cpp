#include "host/QOREnvFollower.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <stop_token>

#include "QORCommon/QORLogger.h"
#include "QORCommon/QORSourcePath.h"
#include "QORServers/QORServers.h"

namespace QOR {
namespace {

constexpr auto betweenLooks = std::chrono::milliseconds(250);

void follow(QOREnvCache& cache, const std::stop_token& stop) {
    std::mutex mutex;
    std::condition_variable_any woken;
    std::unique_lock lock(mutex);
    bool failing = false;
    while (!woken.wait_for(lock, stop, betweenLooks, [&] { return stop.stop_requested(); })) {
        if (stop.stop_requested()) return;
        try {
            cache.refresh();
            QORServers::instance().refresh();
            if (failing) logMessage(2, "QORHost", QOR_SOURCE_PATH, __func__, "changed environments are taken in again");
            failing = false;
        } catch (const std::exception& failure) {
            if (!failing) {
                logMessage(1, "QORHost", QOR_SOURCE_PATH, __func__, "changed environments cannot be taken in: %s",
                           failure.what());
            }
            failing = true;
        }
    }
}

}  // namespace

QOREnvFollower::QOREnvFollower(QOREnvCache& cache)
    : m_thread([&cache](const std::stop_token& stop) { follow(cache, stop); }) {}

}  // namespace QOR
