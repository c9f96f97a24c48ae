/// \file
/// Keeps the cache of environments, and the placement of their records, up to date with a database that others change
/// too.
#pragma once

#include <thread>

#include "QORLibAgent/QOREnvCache.h"

namespace QOR {

/// From its making to its end the cache takes in four times a second what other programs have changed, other hosts on
/// the same database among them; what this process stores itself is there at once without it. A database that cannot be
/// asked is asked again at the next turn; the log tells when that begins and ends.
class QOREnvFollower {
public:
    /// \param cache has been loaded, and outlives this
    explicit QOREnvFollower(QOREnvCache& cache);

private:
    std::jthread m_thread;
};

}  // namespace QOR
