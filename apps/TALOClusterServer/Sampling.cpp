#include <apps/TALOClusterServer/Sampling.h>

#include <cstring>

namespace render {

namespace {
constexpr float s_pi = 3.14159265F;
}

Turn::Turn(float u)
{
    // A quarter turn is as far as the polynomials reach: [-1/8, 1/8) around its middle.
    const int quarter = static_cast<int>(u * 4.0F + 0.5F);
    const float x = (u - static_cast<float>(quarter) * 0.25F) * (2.0F * s_pi);
    const float x2 = x * x;
    const float s =
        x * (1.0F + x2 * (-1.0F / 6.0F + x2 * (1.0F / 120.0F + x2 * (-1.0F / 5040.0F))));
    const float c =
        1.0F + x2 * (-0.5F + x2 * (1.0F / 24.0F + x2 * (-1.0F / 720.0F + x2 / 40320.0F)));
    switch (quarter & 3) {
    case 0:
        sine = s;
        cosine = c;
        break;
    case 1:
        sine = c;
        cosine = -s;
        break;
    case 2:
        sine = -s;
        cosine = -c;
        break;
    default:
        sine = -c;
        cosine = s;
        break;
    }
}

float exponentialDecay(float x)
{
    if (!(x < 80.0F)) {
        return 0.0F;
    }
    // e^-x = 2^-whole * e^-rest
    const float turns = x * 1.44269504F;
    const int whole = static_cast<int>(turns + 0.5F);
    const float r = (turns - static_cast<float>(whole)) * -0.693147181F;
    const float rest =
        1.0F + r * (1.0F + r * (0.5F + r * (1.0F / 6.0F + r * (1.0F / 24.0F +
                                                               r * (1.0F / 120.0F + r / 720.0F)))));
    const std::uint32_t bits = static_cast<std::uint32_t>(127 - whole) << 23;
    float scale = 0.0F;
    std::memcpy(&scale, &bits, sizeof scale);
    return rest * scale;
}

Basis::Basis(const Vector& n) : normal(n)
{
    const float sign = n.z < 0.0F ? -1.0F : 1.0F;
    const float a = -1.0F / (sign + n.z);
    const float b = n.x * n.y * a;
    tangent = {1.0F + sign * n.x * n.x * a, sign * b, -sign * n.x};
    bitangent = {b, sign + n.y * n.y * a, -n.y};
}

Vector sampleCosine(Sampler::Pair random)
{
    const float radius = std::sqrt(random.u);
    const Turn turn(random.v);
    return {radius * turn.cosine, radius * turn.sine, std::sqrt(1.0F - random.u)};
}

Vector Microfacets::sample(const Vector& out, Sampler::Pair random) const
{
    // Stretch to a surface of roughness 1, where the visible normals are a projected disk.
    const Vector view = normalize({m_alpha * out.x, m_alpha * out.y, out.z});
    const float radius = std::sqrt(random.u);
    const Turn turn(random.v);
    Vector t1{1.0F, 0.0F, 0.0F};
    Vector t2{0.0F, 1.0F, 0.0F};
    const float flat = view.x * view.x + view.y * view.y;
    if (flat > 0.0F) {
        t1 = Vector(-view.y, view.x, 0.0F) * (1.0F / std::sqrt(flat));
        t2 = cross(view, t1);
    }
    const float p1 = radius * turn.cosine;
    const float s = 0.5F * (1.0F + view.z);
    const float p2 =
        (1.0F - s) * std::sqrt(std::max(0.0F, 1.0F - p1 * p1)) + s * radius * turn.sine;
    const Vector n = t1 * p1 + t2 * p2 + view * std::sqrt(std::max(0.0F, 1.0F - p1 * p1 - p2 * p2));
    return normalize({m_alpha * n.x, m_alpha * n.y, std::max(1e-6F, n.z)});
}

float Microfacets::density(const Vector& out, const Vector& facet) const
{
    return distribution(facet) / ((1.0F + lambda(out)) * 4.0F * out.z);
}

float Microfacets::reflect(const Vector& out, const Vector& in, const Vector& facet) const
{
    return distribution(facet) / ((1.0F + lambda(out) + lambda(in)) * 4.0F * out.z * in.z);
}

float Microfacets::distribution(const Vector& facet) const
{
    const float a2 = m_alpha * m_alpha;
    const float d = (facet.x * facet.x + facet.y * facet.y) / a2 + facet.z * facet.z;
    return 1.0F / (s_pi * a2 * d * d);
}

float Microfacets::lambda(const Vector& v) const
{
    const float slope = m_alpha * m_alpha * (v.x * v.x + v.y * v.y) / (v.z * v.z);
    return 0.5F * (std::sqrt(1.0F + slope) - 1.0F);
}

} // namespace render
