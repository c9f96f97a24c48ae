/// \file
/// What was made of a text and is made of it no more, because it is kept for whoever comes with the same text next.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace QOR {

/// So many things as there may be, those that were used last. Each is in one hand at a time: who takes one has it
/// alone, and may leave it here again; several may be kept under one text. Thread-safe; things end outside of its lock.
/// \tparam Thing movable
template <class Thing>
class QORKeptByText {
public:
    explicit QORKeptByText(std::size_t most) : m_most(most) {}

    /// One that is kept under the text; nothing where there is none. \param fits whether it will do: one that will not
    /// is dropped
    template <class Fits>
    std::optional<Thing> take(const std::string& text, Fits fits) {
        const std::size_t hash = std::hash<std::string>()(text);
        std::optional<Thing> taken;
        {
            const std::lock_guard lock(m_mutex);
            const auto found = std::find_if(m_kept.rbegin(), m_kept.rend(),
                                            [&](const Kept& one) { return one.hash == hash && one.text == text; });
            if (found == m_kept.rend()) return taken;
            taken.emplace(std::move(found->thing));
            m_kept.erase(std::next(found).base());
        }
        if (!fits(*taken)) taken.reset();
        return taken;
    }

    void keep(std::string text, Thing thing) {
        const std::size_t hash = std::hash<std::string>()(text);
        std::optional<Kept> forgotten;
        const std::lock_guard lock(m_mutex);
        if (m_kept.size() == m_most) {
            forgotten.emplace(std::move(m_kept.front()));
            m_kept.erase(m_kept.begin());
        }
        m_kept.push_back({hash, std::move(text), std::move(thing)});
    }

    std::size_t size() {
        const std::lock_guard lock(m_mutex);
        return m_kept.size();
    }

    void clear() {
        std::vector<Kept> forgotten;
        const std::lock_guard lock(m_mutex);
        forgotten.swap(m_kept);
    }

private:
    struct Kept {
        std::size_t hash;
        std::string text;
        Thing thing;
    };

    const std::size_t m_most;
    std::mutex m_mutex;
    std::vector<Kept> m_kept;  // guarded by m_mutex; what was used last stands last
};

}  // namespace QOR
