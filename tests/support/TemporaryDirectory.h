/// \file
/// A folder for one test.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace QOR::test {

/// Makes an empty folder for its user alone, where the environment (TMPDIR) wants such folders. Its path is short
/// enough for sockets. \throws std::exception when there can be none
inline std::string makeTemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "qor-test-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("cannot make a temporary folder " + name);
    return name;
}

/// An empty folder, removed with everything in it at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory() : m_path(makeTemporaryFolder()) {}
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
