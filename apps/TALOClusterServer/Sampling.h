#pragma once

#include <apps/TALOClusterServer/Sampler.h>
#include <apps/common/Vector.h>

namespace render {

/// Directions drawn from the distributions that a path tracer needs.
///
/// The transcendental functions of the C library give other last bits on other processors; the
/// two that are needed here are made from plain arithmetic, so that the servers of a mixed
/// cluster agree on every bit of a picture.

/// Sine and cosine of a whole turn times u, u in [0, 1), to about 20 bits.
struct Turn
{
    explicit Turn(float u);
    float sine;
    float cosine;
};

/// e to the power of -x, x >= 0, to about 16 bits; 0 from 80 on.
float exponentialDecay(float x);

/// Two axes that make a right-handed system with a unit normal.
struct Basis
{
    explicit Basis(const Vector& normal);
    Vector toWorld(const Vector& v) const { return tangent * v.x + bitangent * v.y + normal * v.z; }
    Vector toLocal(const Vector& v) const
    {
        return {dot(v, tangent), dot(v, bitangent), dot(v, normal)};
    }

    Vector tangent;
    Vector bitangent;
    Vector normal;
};

/// A direction above the plane z = 0 with a density of z / pi.
Vector sampleCosine(Sampler::Pair random);

/// Microfacets of a rough surface (GGX) in local coordinates, z the normal.
class Microfacets
{
public:
    explicit Microfacets(float roughness) : m_alpha(std::max(roughness * roughness, 1e-4F)) {}

    /// A facet normal as seen from `out`, which lies above the surface.
    Vector sample(const Vector& out, Sampler::Pair random) const;

    /// Density of the direction `in` when it is mirrored from `out` at a sampled facet.
    float density(const Vector& out, const Vector& facet) const;

    /// Distribution and shadowing over 4 cos(out) cos(in): the reflection without Fresnel.
    float reflect(const Vector& out, const Vector& in, const Vector& facet) const;

private:
    float distribution(const Vector& facet) const;
    float lambda(const Vector& v) const;

    float m_alpha;
};

} // namespace render
