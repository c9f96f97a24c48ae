/// \file
/// Who comes next when several want more than there is.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <deque>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace QOR {

/// How much there is.
struct FairQueueLimits {
    std::size_t inAll = 1;          ///< units in use at once
    std::size_t perKey = 1;         ///< of these, by one key
    std::size_t waitingInAll = 0;   ///< items that may wait
    std::size_t waitingPerKey = 0;  ///< of these, of one key
};

/// Items wait here for units of something: workers, bytes. Each belongs to a key (a client's identity) and asks for a
/// number of units, which it keeps until they are given back. Keys take turns, the items of a key keep their order. A
/// key that has all that it may have is passed over; when what is left is too little for the item whose turn it is,
/// everybody waits for it, so that one that asks for much is not overtaken for ever.
///
/// Not thread-safe. Costs of a call grow with the number of keys that wait, not of items, but for remove() and
/// expire().
template <class Item>
class FairQueue {
public:
    using Time = std::chrono::steady_clock::time_point;

    explicit FairQueue(const FairQueueLimits& limits) : m_limits(limits) {}

    const FairQueueLimits& limits() const noexcept { return m_limits; }
    /// What is in use beyond smaller limits stays so until it is given back. An item that waits for more than its key
    /// may have now waits until it expires.
    void setLimits(const FairQueueLimits& limits) noexcept { m_limits = limits; }

    /// Lets an item wait. \param units at most limits().perKey
    /// \returns false when as many wait as may
    bool enter(const std::string& key, Item item, std::size_t units, Time until) {
        Account& account = m_accounts[key];
        if (m_waiting >= m_limits.waitingInAll || account.waiting.size() >= m_limits.waitingPerKey) {
            forget(key);
            return false;
        }
        if (account.waiting.empty()) m_turns.push_back(key);
        account.waiting.push_back({std::move(item), units, until});
        ++m_waiting;
        return true;
    }

    /// The item whose turn it is and for which there is enough; it has its units from now on.
    std::optional<Item> next() {
        for (auto turn = m_turns.begin(); turn != m_turns.end(); ++turn) {
            Account& account = m_accounts[*turn];
            const std::size_t units = account.waiting.front().units;
            if (account.used + units > m_limits.perKey) continue;
            if (m_used + units > m_limits.inAll) return std::nullopt;
            Item item = std::move(account.waiting.front().item);
            account.waiting.pop_front();
            --m_waiting;
            take(account, units);
            if (account.waiting.empty()) {
                m_turns.erase(turn);
            } else {
                m_turns.splice(m_turns.end(), m_turns, turn);
            }
            return item;
        }
        return std::nullopt;
    }

    /// Takes units without waiting. \returns false, and takes none, when there are too few
    bool takeNow(const std::string& key, std::size_t units) {
        Account& account = m_accounts[key];
        const bool enough = account.used + units <= m_limits.perKey && m_used + units <= m_limits.inAll;
        if (enough) take(account, units);
        if (!enough) forget(key);
        return enough;
    }

    void giveBack(const std::string& key, std::size_t units) {
        m_accounts[key].used -= units;
        m_used -= units;
        forget(key);
    }

    /// Ends the waiting of an item. \returns false when it does not wait
    bool remove(const std::string& key, const Item& item) {
        const auto found = m_accounts.find(key);
        if (found == m_accounts.end()) return false;
        auto& waiting = found->second.waiting;
        const auto place =
            std::find_if(waiting.begin(), waiting.end(), [&](const Waiting& each) { return each.item == item; });
        if (place == waiting.end()) return false;
        waiting.erase(place);
        --m_waiting;
        if (waiting.empty()) m_turns.remove(key);
        forget(key);
        return true;
    }

    /// Takes out what has waited too long.
    std::vector<Item> expire(Time now) {
        std::vector<Item> expired;
        for (auto turn = m_turns.begin(); turn != m_turns.end();) {
            const std::string key = *turn;
            std::deque<Waiting>& waiting = m_accounts[key].waiting;
            std::deque<Waiting> staying;
            for (Waiting& each : waiting) {
                if (each.until <= now) {
                    expired.push_back(std::move(each.item));
                } else {
                    staying.push_back(std::move(each));
                }
            }
            m_waiting -= waiting.size() - staying.size();
            waiting = std::move(staying);
            turn = waiting.empty() ? m_turns.erase(turn) : std::next(turn);
            forget(key);
        }
        return expired;
    }

    std::size_t waiting() const noexcept { return m_waiting; }
    std::size_t used() const noexcept { return m_used; }

private:
    struct Waiting {
        Item item;
        std::size_t units;
        Time until;
    };
    struct Account {
        std::size_t used = 0;
        std::deque<Waiting> waiting{};
    };

    void take(Account& account, std::size_t units) {
        account.used += units;
        m_used += units;
    }
    /// Accounts are kept no longer than they say anything: keys may be many.
    void forget(const std::string& key) {
        const auto found = m_accounts.find(key);
        if (found != m_accounts.end() && found->second.used == 0 && found->second.waiting.empty())
            m_accounts.erase(found);
    }

    FairQueueLimits m_limits;
    std::map<std::string, Account, std::less<>> m_accounts;
    std::list<std::string> m_turns;  ///< keys with waiting items, the one whose turn it is first
    std::size_t m_waiting = 0;
    std::size_t m_used = 0;
};

}  // namespace QOR
