#pragma once

#include <algorithm>
#include <cmath>

namespace render {

/// Three floats: a point, a direction or a linear colour.
///
/// The renderer computes with nothing but the five IEEE operations and the square root, which
/// give the same bits on every machine.
struct Vector
{
    float x = 0.0F;
    float y = 0.0F;
    float z = 0.0F;

    constexpr Vector() = default;
    constexpr explicit Vector(float all) : x(all), y(all), z(all) {}
    constexpr Vector(float x_, float y_, float z_) : x(x_), y(y_), z(z_) {}

    constexpr Vector operator-() const { return {-x, -y, -z}; }
    constexpr Vector& operator+=(const Vector& o) { return *this = *this + o; }
    constexpr Vector& operator*=(const Vector& o) { return *this = *this * o; }
    constexpr Vector& operator*=(float s) { return *this = *this * s; }

    friend constexpr Vector operator+(const Vector& a, const Vector& b)
    {
        return {a.x + b.x, a.y + b.y, a.z + b.z};
    }
    friend constexpr Vector operator-(const Vector& a, const Vector& b)
    {
        return {a.x - b.x, a.y - b.y, a.z - b.z};
    }
    friend constexpr Vector operator*(const Vector& a, const Vector& b)
    {
        return {a.x * b.x, a.y * b.y, a.z * b.z};
    }
    friend constexpr Vector operator*(const Vector& a, float s)
    {
        return {a.x * s, a.y * s, a.z * s};
    }
    friend constexpr Vector operator*(float s, const Vector& a) { return a * s; }
    friend constexpr bool operator==(const Vector& a, const Vector& b)
    {
        return a.x == b.x && a.y == b.y && a.z == b.z;
    }
    friend constexpr bool operator!=(const Vector& a, const Vector& b) { return !(a == b); }
};

constexpr float dot(const Vector& a, const Vector& b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

constexpr Vector cross(const Vector& a, const Vector& b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

inline float length(const Vector& a)
{
    return std::sqrt(dot(a, a));
}

/// The direction of a vector; a vector without one stays as it is.
inline Vector normalize(const Vector& a)
{
    const float l = length(a);
    return l > 0.0F ? a * (1.0F / l) : a;
}

inline float maxComponent(const Vector& a)
{
    return std::max(a.x, std::max(a.y, a.z));
}

inline bool isFinite(const Vector& a)
{
    return std::isfinite(a.x) && std::isfinite(a.y) && std::isfinite(a.z);
}

inline Vector mix(const Vector& a, const Vector& b, float t)
{
    return a * (1.0F - t) + b * t;
}

} // namespace render
