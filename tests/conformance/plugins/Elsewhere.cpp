// A library that only the plug-in beside it finds.
#include <string>

namespace elsewhere {

__attribute__((visibility("default"))) int countThings(const std::string& name) {
    return name.empty() ? 1 : 0;
}

}  // namespace elsewhere
