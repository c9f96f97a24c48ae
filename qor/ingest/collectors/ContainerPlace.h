/// \file
/// What has been told of containers, as a position.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "ingest/collectors/EnvironmentLife.h"

namespace QOR {

struct ToldContainer {
    EnvironmentLife life = EnvironmentLife::Unknown;    ///< as it was told
    EnvironmentLife listed = EnvironmentLife::Unknown;  ///< as it was seen last, which may not have been told yet
    std::string seen{};    ///< digest of what the list had of it when it was looked at; empty: it was not
    std::string digest{};  ///< of its environment's record; empty where it has not been told
    std::string name{};
    std::string run{};  ///< that was seen last
};

/// A text of lines, whose words are escaped as paths are. What of it makes no sense is as if it had not been told.
class ContainerPlace {
public:
    explicit ContainerPlace(std::string_view position);
    std::string text() const;

    std::int64_t reached = 0;  ///< nanoseconds since the epoch, up to which events have been told; 0: nothing has
    std::string lookedAt{};    ///< the identifier of the container that was looked at last in its turn
    std::map<std::string, ToldContainer, std::less<>> containers;  ///< by identifier
    std::map<std::string, std::string, std::less<>> images;        ///< their names, by identifier

private:
    void readLine(std::string_view line);
};

}  // namespace QOR
