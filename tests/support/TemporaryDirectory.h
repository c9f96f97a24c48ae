/// \file
/// A folder for one test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace QOR::test {

/// An empty folder, removed with everything in it at the end. Its path is short enough for sockets.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string name = "/tmp/qor-test-XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder");
        m_path = name;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const noexcept { return m_path; }
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }
    std::string file(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

}  // namespace QOR::test
