// Runs a harness over its corpus, in every test run; a fuzzer only runs it longer. Each file is
// also tried cut off at every length and with every byte changed.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Bytes = std::vector<std::uint8_t>;

/// Longer files are tried as they are only.
constexpr std::size_t s_longestVaried = 1024;

std::vector<std::filesystem::path> corpus()
{
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(KY_FUZZ_CORPUS)) {
        files.push_back(entry.path());
    }
    return files;
}

Bytes read(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

/// On the heap and of exactly this size, so that the sanitizer sees every read behind it.
void run(const Bytes& bytes)
{
    const Bytes exact(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

template <class Visit> void forEachShortFile(Visit visit)
{
    for (const std::filesystem::path& file : corpus()) {
        SCOPED_TRACE(file.string());
        Bytes bytes = read(file);
        if (bytes.size() <= s_longestVaried) {
            visit(std::move(bytes));
        }
    }
}

} // namespace

TEST(KY_FUZZ_NAME, takesEveryFileOfItsCorpus)
{
    const std::vector<std::filesystem::path> files = corpus();
    EXPECT_GE(files.size(), 3U);
    for (const std::filesystem::path& file : files) {
        SCOPED_TRACE(file.string());
        run(read(file));
    }
}

TEST(KY_FUZZ_NAME, takesEveryFileCutOffAnywhere)
{
    forEachShortFile([](const Bytes& bytes) {
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            run(Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length)));
        }
    });
}

TEST(KY_FUZZ_NAME, takesEveryFileWithAnyByteChanged)
{
    forEachShortFile([](Bytes bytes) {
        for (std::uint8_t& byte : bytes) {
            const std::uint8_t before = byte;
            for (const int change : {0x01, 0x80, 0xff}) {
                byte = static_cast<std::uint8_t>(before ^ change);
                run(bytes);
            }
            byte = before;
        }
    });
}
