/// \file
/// QORSpreadViews: where the rows of the host's views lie when its records are spread over servers.
#pragma once

#include <memory>
#include <mutex>

#include "QORCommon/QORExport.h"
#include "rdbmspp/sql/ASSpread.h"

namespace QOR {

/// Of the process's database, and so for views that are selected from there; whoever selects from another one does
/// without. Thread-safe.
class QOR_API QORSpreadViews : public ASSpread {
public:
    static QORSpreadViews& instance();

    std::shared_ptr<const ASPlaces> places() override;
    bool isCurrent(const ASPlaces& places) override;
    AException naming(const ASPlaces& places, const AException& failure) override;

private:
    class Places;

    bool wasBetween();

    std::mutex m_mutex;
    bool m_between = false;                  // guarded by m_mutex; a hand-over was found that home does not tell of
    std::shared_ptr<const Places> m_places;  // guarded by m_mutex; the latest that was asked for
};

}  // namespace QOR
