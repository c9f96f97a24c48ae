/// \file
/// Calls from other threads to the one that runs an event loop.
#pragma once

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

namespace QOR {

/// Functions that other threads have run on the loop's. The loop's own way takes its lock while it rouses its thread,
/// which then runs into that lock on the caller's processor, and has to be roused again; here nobody waits for anybody,
/// and calls that come together rouse the thread once.
///
/// post() is thread-safe, the rest is the loop's thread's. The loop goes on until close(). Calls that have not been run
/// when this ends are dropped.
class LoopCalls {
public:
    using Call = std::function<void()>;

    /// \throws std::system_error when the system has no descriptor for it
    explicit LoopCalls(boost::asio::io_context& loop);
    LoopCalls(const LoopCalls&) = delete;
    LoopCalls& operator=(const LoopCalls&) = delete;

    /// Behind those that were posted before. \param call what it throws the loop's run() throws
    void post(Call call);
    /// Lets the loop end; of what is posted from now on nothing is run.
    void close();

private:
    void await();
    void take();
    void run();

    boost::asio::posix::stream_descriptor m_bell;
    /// Longer than what a bell gives at a time, so that the loop knows that it is silent again without asking.
    std::array<std::uint64_t, 2> m_rings{};
    std::vector<Call> m_running;
    std::size_t m_next = 0;  ///< of m_running
    bool m_closed = false;
    std::mutex m_mutex;
    std::vector<Call> m_calls;  // guarded by m_mutex
};

}  // namespace QOR
