#include "ingest/collectors/MappedReading.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>

#include "QORCommon/QORFiles.h"
#include "support/TemporaryDirectory.h"

namespace QOR {
namespace {

const std::size_t bytesOfPage = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
const std::size_t mappedBytes = 8 * bytesOfPage;

/// A file of letters that is mapped, and then cut to nothing.
class CutFile {
public:
    CutFile() {
        const std::filesystem::path path = m_folder / "file";
        std::ofstream(path) << std::string(mappedBytes, 'x');
        const QORFileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        m_memory = ::mmap(nullptr, mappedBytes, PROT_READ, MAP_SHARED, file.get(), 0);
        EXPECT_NE(m_memory, MAP_FAILED);
        EXPECT_EQ(read(0), 'x');
        std::filesystem::resize_file(path, 0);
    }
    ~CutFile() { ::munmap(m_memory, mappedBytes); }
    CutFile(const CutFile&) = delete;
    CutFile& operator=(const CutFile&) = delete;

    char read(std::size_t at) const { return static_cast<const volatile char*>(m_memory)[at]; }

private:
    const test::TemporaryDirectory m_folder;
    void* m_memory = nullptr;
};

TEST(MappedReading, WhatIsGoneIsReadAsZerosAndTold) {
    const CutFile file;
    const MappedReading outer;
    {
        const MappedReading inner;
        EXPECT_FALSE(inner.hasFailed());
        EXPECT_EQ(file.read(bytesOfPage + 900), 0);
        EXPECT_TRUE(inner.hasFailed());
    }
    EXPECT_FALSE(outer.hasFailed()) << "it is told to who reads";
    EXPECT_EQ(file.read(4 * bytesOfPage + 900), 0);
    EXPECT_TRUE(outer.hasFailed());
}

TEST(MappedReadingDeathTest, NobodyElseIsKeptFromEnding) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto readOutside = [] {
        const CutFile file;
        { const MappedReading reading; }
        static_cast<void>(file.read(0));
    };
    EXPECT_DEATH(readOutside(), "");
    EXPECT_DEATH(
        {
            const MappedReading reading;
            ::raise(SIGBUS);
        },
        "")
        << "what was sent is no failure of reading";
}

}  // namespace
}  // namespace QOR
