/// \file
/// Names that only who is asked knows: of views and their columns, of fields, of identities.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "backend/Backend.h"

namespace QOR {

/// A name, and what it means in a few words, which may be empty.
struct NamedThing {
    std::string name;
    std::string meaning;
};

/// Asks when it is asked the first time. \throws CtlError, QORException as the backends do
class LiveNames {
public:
    /// \param beforeAsking called once, before anybody is asked
    LiveNames(ConnectionOptions connection, std::function<void()> beforeAsking)
        : m_connection(std::move(connection)), m_beforeAsking(std::move(beforeAsking)) {}

    std::vector<NamedThing> views();
    /// None for a view that there is not.
    std::vector<NamedThing> columns(const std::string& view);
    std::vector<NamedThing> fields();
    /// Of the source, as people write them beside it: "time" for "pager.op_log.time".
    std::vector<NamedThing> shortFields(const std::string& records);
    std::vector<NamedThing> identities();

private:
    Backend& backend();

    ConnectionOptions m_connection;
    std::function<void()> m_beforeAsking;
    std::unique_ptr<Backend> m_backend;
};

}  // namespace QOR
