// What one processor encrypts without a network: the limit of the workload "encrypted".

#include <vector>

#include <apps/common/LinkCipher.h>
#include <benchmarks/alone/Alone.h>
#include <benchmarks/core/Content.h>

int main(int argc, char** argv)
{
    const bench::Terms terms = bench::Terms::parse(argc, argv);
    const bench::Content content(terms.size, terms.dataFile);
    LinkCipher cipher({}, {1});
    std::vector<char> clear(terms.size);
    std::vector<std::uint8_t> encrypted(terms.size);
    const bench::Report report = bench::workAlone(terms, [&](std::uint64_t number) {
        content.write(clear.data(), number, bench::Phase::Measured);
        cipher.encrypt(encrypted.data(), reinterpret_cast<const std::uint8_t*>(clear.data()),
                       terms.size);
    });
    bench::Meeting(terms.folder, terms.rank).report(report);
    return 0;
}
