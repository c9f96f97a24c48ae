/// \file
/// What is told of containers and images, as records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "QORFunctionality/QORCollector.h"
#include "ingest/QORRecords.h"
#include "ingest/collectors/CollectedLeftOut.h"
#include "ingest/collectors/ContainerCollector.h"
#include "ingest/collectors/ContainerEngine.h"
#include "ingest/collectors/ContainerPlace.h"

namespace QOR {

/// A container's state, and the one that it is on its way to; Unknown for none.
struct ContainerLife {
    EnvironmentLife now = EnvironmentLife::Unknown;
    EnvironmentLife next = EnvironmentLife::Unknown;
};
/// \param state as engines name it
ContainerLife containerLife(std::string_view state) noexcept;

/// Brings records of a run. Used by its thread.
class ContainerTelling {
public:
    /// \param engine the collector's name \param hasOwnIds as ContainerEngine::hasOwnIds()
    ContainerTelling(QORCollection& collection, std::string engine, bool hasOwnIds,
                     const ContainerCollector::Bounds& most);

    /// The environment that a container is.
    QOREID eidOf(const std::string& id) const;
    /// What a container is, unless that has been told.
    void tell(const ListedContainer& container, const ContainerDetails& details, ToldContainer& told);
    /// One that is no more: its environment, and that it has ended.
    void tellGone(const std::string& id, const ToldContainer& told);
    /// Something that has happened, where it is any news. \param told of the container; null for an image
    void tell(const ContainerEvent& event, ToldContainer* told);
    /// A change of which no event told. \param event is to have an action
    void tellChange(ContainerEvent event, ToldContainer& told, EnvironmentLife now);
    /// An image that came or went, seconds since the epoch.
    void tell(const ContainerImage& image, std::string_view action, std::int64_t time);
    /// Tells what has been left out.
    void end();

private:
    struct News;
    void tell(const News& news);
    bool isLeftOut(const News& news);

    QORCollection& m_collection;
    const std::string m_engine;
    const std::string m_scope;  ///< what tells its containers from those of others
    const ContainerCollector::Bounds m_most;
    const QOREnvironmentRecord m_machine;
    std::size_t m_told = 0;
    std::map<std::string, std::size_t, std::less<>> m_ofOne;
    CollectedLeftOut m_leftOut;
};

}  // namespace QOR
