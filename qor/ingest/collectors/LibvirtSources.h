/// \file
/// Which hypervisors libvirt is asked for.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace QOR {

struct LibvirtSource {
    std::string name;  ///< as people know it: "qemu:///system"
    std::string uri;   ///< by which it is reached
};

/// Those of this machine's own whose sockets are there, below a folder that stands for "/".
std::vector<LibvirtSource> findLibvirtSources(const std::filesystem::path& root);

/// Whether it is one that can be asked: a hypervisor of this machine, for which no program has to be run.
/// \throws QORException errBadRequest that says why not
void checkLibvirtSource(const std::string& uri);

}  // namespace QOR
