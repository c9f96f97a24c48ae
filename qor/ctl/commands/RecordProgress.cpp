#include "commands/RecordProgress.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>

namespace QOR {
namespace {

std::string textOf(std::string text, std::uint64_t records, std::uint64_t of, std::uint64_t resumed, double seconds,
                   const char* unit) {
    if (of == 0 && records == 0) return text;
    text += ": ";
    if (of > 0) text += std::to_string(records * 100 / of) + "%, ";
    text += std::to_string(records);
    if (of > 0) text += " of " + std::to_string(of);
    text.append(" ").append(unit);
    const std::string rate =
        describeRate(static_cast<double>(records - resumed), of > 0 ? static_cast<double>(of - resumed) : 0, seconds);
    return rate.empty() ? text : text + ", " + rate;
}

}  // namespace

std::string describeRate(double done, double of, double seconds) {
    if (seconds <= 0 || done <= 0) return {};
    const double rate = done / seconds;
    std::string text = std::to_string(static_cast<std::uint64_t>(rate)) + " a second";
    if (of > 0) text += ", " + std::to_string(static_cast<std::uint64_t>(std::max(of - done, 0.0) / rate)) + " s left";
    return text;
}

RecordProgress::RecordProgress(bool asked, bool amongRows, const char* unit)
    : m_unit(unit), m_terminal(!amongRows && ::isatty(STDERR_FILENO) != 0), m_shows(asked || m_terminal) {}

void RecordProgress::tell(const std::string& part, std::uint64_t records, std::uint64_t of, std::uint64_t resumed) {
    if (!m_shows) return;
    const auto now = Clock::now();
    const bool begins = part != m_part || !m_any;
    if (begins) m_began = now;
    const Clock::duration pace = m_terminal ? std::chrono::milliseconds(100) : std::chrono::milliseconds(1000);
    if (!begins && records != of && now - m_last < pace) return;
    m_part = part;
    m_any = true;
    m_last = now;
    const std::string text =
        textOf(part, records, of, resumed, std::chrono::duration<double>(now - m_began).count(), m_unit);
    std::cerr << (m_terminal ? "\r\x1b[K" : "") << text << (m_terminal ? "" : "\n") << std::flush;
}

void RecordProgress::hide() const {
    if (m_terminal && m_any) std::cerr << "\r\x1b[K" << std::flush;
}

void RecordProgress::clear() {
    hide();
    m_any = false;
}

}  // namespace QOR
