/// \file
/// Names that only who is asked knows: of views and their columns, of fields, of identities.
#pragma once

#include <memory>
#include <string>
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
    explicit LiveNames(ConnectionOptions connection) : m_connection(std::move(connection)) {}

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
    std::unique_ptr<Backend> m_backend;
};

}  // namespace QOR
