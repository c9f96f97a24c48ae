#include "agent/http/LoopCalls.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/system/error_code.hpp>
#include <cerrno>
#include <system_error>
#include <utility>

namespace QOR {
namespace {

int newBell() {
    const int bell = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (bell < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    return bell;
}

}  // namespace

LoopCalls::LoopCalls(boost::asio::io_context& loop) : m_bell(loop, newBell()) {
    await();
}

void LoopCalls::post(Call call) {
    bool first = false;
    {
        const std::lock_guard lock(m_mutex);
        first = m_calls.empty();
        m_calls.push_back(std::move(call));
    }
    // Who finds calls there knows that the bell has been rung, or is about to be.
    if (first) {
        const std::uint64_t ring = 1;
        [[maybe_unused]] const ssize_t size = ::write(m_bell.native_handle(), &ring, sizeof ring);
    }
}

void LoopCalls::close() {
    m_closed = true;
    // Callers may be ringing still: the bell stays theirs.
    m_bell.cancel();
}

void LoopCalls::await() {
    if (m_closed) return;
    m_bell.async_read_some(boost::asio::buffer(m_rings), [this](const boost::system::error_code& error, std::size_t) {
        if (!error && !m_closed) take();
    });
}

void LoopCalls::take() {
    {
        const std::lock_guard lock(m_mutex);
        m_running.swap(m_calls);
    }
    run();
}

void LoopCalls::run() {
    while (m_next < m_running.size()) {
        try {
            m_running[m_next++]();
        } catch (...) {
            boost::asio::post(m_bell.get_executor(), [this] { run(); });
            throw;
        }
    }
    m_running.clear();
    m_next = 0;
    await();
}

}  // namespace QOR
