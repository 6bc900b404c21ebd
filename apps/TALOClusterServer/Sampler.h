#pragma once

#include <cstdint>

namespace render {

/// The random numbers of one path: a pure function of pixel, path and question.
///
/// No state is shared and nothing is drawn from a sequence, so a path gets the same numbers
/// whichever process traces it and whatever was traced before it. The numbers come in pairs; the
/// pairs of all paths of a pixel form a scrambled Sobol set, which covers the unit square far more
/// evenly than independent numbers do.
class Sampler
{
public:
    Sampler(std::uint32_t x, std::uint32_t y, std::uint32_t path)
        : m_pixel(hash(x + 0x9E3779B9U * hash(y))), m_path(path)
    {
    }

    struct Pair
    {
        float u;
        float v;
    };

    /// The next pair, both numbers in [0, 1).
    Pair next()
    {
        const std::uint32_t question = hash(m_pixel ^ hash(m_question++));
        // Each question walks the set in an order of its own, so that they do not correlate.
        const std::uint32_t index = scrambleReversed(reverse(m_path), question);
        return {toUnit(scrambleReversed(index, hash(question ^ 0x68BC21EBU))),
                toUnit(scrambleReversed(sobolSecond(index), hash(question ^ 0x02E5BE93U)))};
    }

private:
    static constexpr std::uint32_t hash(std::uint32_t v)
    {
        v ^= v >> 16;
        v *= 0x21F0AAADU;
        v ^= v >> 15;
        v *= 0xD35A2D97U;
        return v ^ (v >> 15);
    }

    static constexpr std::uint32_t reverse(std::uint32_t v)
    {
        v = (v >> 16) | (v << 16);
        v = ((v & 0x00FF00FFU) << 8) | ((v & 0xFF00FF00U) >> 8);
        v = ((v & 0x0F0F0F0FU) << 4) | ((v & 0xF0F0F0F0U) >> 4);
        v = ((v & 0x33333333U) << 2) | ((v & 0xCCCCCCCCU) >> 2);
        return ((v & 0x55555555U) << 1) | ((v & 0xAAAAAAAAU) >> 1);
    }

    /// Owen's scrambling of a number whose bits stand in reverse: each is flipped depending on the
    /// ones below it only. Returns them in the right order.
    static constexpr std::uint32_t scrambleReversed(std::uint32_t v, std::uint32_t seed)
    {
        v ^= v * 0x3D20ADEAU;
        v += seed;
        v *= (seed >> 16) | 1U;
        v ^= v * 0x05526C56U;
        v ^= v * 0x53A22864U;
        return reverse(v);
    }

    /// The second dimension of the Sobol set, bits in reverse; the first is the index itself.
    /// Its matrix is Pascal's triangle modulo 2.
    static constexpr std::uint32_t sobolSecond(std::uint32_t v)
    {
        v ^= (v >> 1) & 0x55555555U;
        v ^= (v >> 2) & 0x33333333U;
        v ^= (v >> 4) & 0x0F0F0F0FU;
        v ^= (v >> 8) & 0x00FF00FFU;
        return v ^ (v >> 16);
    }

    static constexpr float toUnit(std::uint32_t v) { return static_cast<float>(v >> 8) * 0x1p-24F; }

    std::uint32_t m_pixel;
    std::uint32_t m_path;
    std::uint32_t m_question = 0;
};

} // namespace render
