#include "ingest/collectors/ContainerEngine.h"

namespace QOR {

ContainerEngine::~ContainerEngine() = default;

bool ContainerEngine::hasOwnIds() const noexcept {
    return false;
}

bool ContainerEngine::tellsEvents() const noexcept {
    return false;
}

bool ContainerEngine::takesEnds() const noexcept {
    return false;
}

std::vector<ContainerEvent> ContainerEngine::events(std::int64_t, std::int64_t, std::uint64_t&) {
    return {};
}

std::vector<ContainerImage> ContainerEngine::images(std::uint64_t&) {
    return {};
}

}  // namespace QOR
