// Runs a fuzz target on a fixed number of inputs without libFuzzer: each seed as it is, then seeds changed by chance
// from a fixed start, so that every run sees the same inputs.
//
//   replay COUNT SEED-FOLDER
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Input = std::vector<std::uint8_t>;

std::vector<Input> readSeeds(const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.is_regular_file()) paths.push_back(entry.path());
    }
    std::sort(paths.begin(), paths.end());
    std::vector<Input> seeds;
    for (const auto& path : paths) {
        std::ifstream file(path, std::ios::binary);
        seeds.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return seeds;
}

/// Changes inputs the way a fuzzer does: bytes, stretches, repetitions, pieces of other seeds.
class Mutator {
public:
    explicit Mutator(const std::vector<Input>& seeds) : m_seeds(seeds) {}

    Input next() {
        Input input = m_seeds[pick(m_seeds.size())];
        for (std::size_t changes = 1 + pick(5); changes > 0; --changes)
            change(input);
        return input;
    }

private:
    std::size_t pick(std::size_t count) { return static_cast<std::size_t>(m_random()) % count; }

    void change(Input& input) {
        const std::size_t at = input.empty() ? 0 : pick(input.size());
        const std::size_t length = input.empty() ? 0 : 1 + pick(std::min<std::size_t>(input.size() - at, 16));
        const auto begin = input.begin() + static_cast<std::ptrdiff_t>(at);
        const auto end = begin + static_cast<std::ptrdiff_t>(length);
        switch (pick(6)) {
            case 0:
                if (!input.empty()) input[at] = static_cast<std::uint8_t>(m_random());
                break;
            case 1:
                if (!input.empty()) input[at] = static_cast<std::uint8_t>(input[at] ^ (1U << pick(8)));
                break;
            case 2:
                input.erase(begin, end);
                break;
            case 3:
                input.insert(begin, static_cast<std::uint8_t>(m_random()));
                break;
            case 4: {
                const Input piece(begin, end);
                for (std::size_t times = pick(8); times > 0; --times) {
                    input.insert(input.begin() + static_cast<std::ptrdiff_t>(at), piece.begin(), piece.end());
                }
                break;
            }
            default:
                splice(input, at);
        }
    }

    void splice(Input& input, std::size_t at) {
        const Input& other = m_seeds[pick(m_seeds.size())];
        if (other.empty()) return;
        const std::size_t from = pick(other.size());
        const std::size_t length = 1 + pick(std::min<std::size_t>(other.size() - from, 32));
        const auto begin = other.begin() + static_cast<std::ptrdiff_t>(from);
        input.insert(input.begin() + static_cast<std::ptrdiff_t>(at), begin,
                     begin + static_cast<std::ptrdiff_t>(length));
    }

    const std::vector<Input>& m_seeds;
    std::mt19937_64 m_random{1};
};

int replay(unsigned long count, const std::filesystem::path& folder) {
    const std::vector<Input> seeds = readSeeds(folder);
    if (seeds.empty()) {
        static_cast<void>(std::fprintf(stderr, "no seeds in %s\n", folder.c_str()));
        return 2;
    }
    for (const Input& seed : seeds)
        LLVMFuzzerTestOneInput(seed.data(), seed.size());
    Mutator mutator(seeds);
    for (unsigned long i = 0; i < count; ++i) {
        const Input input = mutator.next();
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("%zu seeds and %lu inputs made from them\n", seeds.size(), count);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        static_cast<void>(std::fprintf(stderr, "usage: %s COUNT SEED-FOLDER\n", argv[0]));
        return 2;
    }
    try {
        return replay(std::strtoul(argv[1], nullptr, 10), argv[2]);
    } catch (const std::exception& error) {
        static_cast<void>(std::fprintf(stderr, "%s\n", error.what()));
        return 1;
    }
}
