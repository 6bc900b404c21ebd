#include <apps/TALOClusterServer/RayCaster.h>

#include <tuple>
#include <vector>

namespace render {

namespace {

constexpr std::ptrdiff_t s_facesInLeaf = 4;
constexpr float Vector::*s_axes[] = {&Vector::x, &Vector::y, &Vector::z};

struct Box
{
    Vector low{Hit::s_infinity};
    Vector high{-Hit::s_infinity};

    bool isCrossed(const Ray& ray, float leave) const
    {
        float enter = 0.0F;
        for (const auto axis : s_axes) {
            const Box turned = std::signbit(ray.direction.*axis) ? Box{high, low} : *this;
            // A ray within a side has no number here; as second argument it changes nothing.
            enter = std::max(enter, (turned.low.*axis - ray.origin.*axis) / ray.direction.*axis);
            leave = std::min(leave, (turned.high.*axis - ray.origin.*axis) / ray.direction.*axis);
        }
        // More than rounding errors, so that nothing at the border is lost.
        return enter <= leave * 1.000001F;
    }
};

/// A triangle of a mesh, or one half of a light.
struct Face
{
    Vector a, b, c;
    std::uint32_t geometry, triangle;

    /// Keeps the nearest hit; of several at one distance that of the face which comes first.
    void meet(const Ray& ray, Hit& hit) const
    {
        const auto passOn = [&](const Vector& p, const Vector& q) {
            return dot(cross(q - p, (p - ray.origin) + (q - ray.origin)), ray.direction);
        };
        // On which side of each edge the ray passes: exactly the opposite for the face beyond it,
        // so that no ray slips through between them.
        const float u = passOn(c, a);
        const float v = passOn(a, b);
        const float w = passOn(b, c);
        const Vector across = cross(b - a, c - a);
        const float sum = u + v + w;
        const bool isMissed = std::min({u, v, w}) < 0.0F && std::max({u, v, w}) > 0.0F;
        const float distance = dot(across, a - ray.origin) / dot(across, ray.direction);
        if (!isMissed && sum != 0.0F && distance >= 0.0F &&
            std::tie(distance, geometry, triangle) <
                std::tie(hit.distance, hit.geometry, hit.triangle)) {
            hit = {distance, geometry, triangle, u / sum, v / sum, normalize(across)};
        }
    }
};

/// A tree of boxes, each around one half of its parent's faces. The children of node n are the
/// nodes 2n + 1 and 2n + 2.
class PlainRayCaster : public RayCaster
{
public:
    explicit PlainRayCaster(Scene& scene)
    {
        std::uint32_t geometry = 0;
        for (Mesh& mesh : scene.meshes) {
            const auto p = std::move(mesh.positions);
            std::uint32_t triangle = 0;
            for (const auto& [a, b, c] : mesh.triangles) {
                m_faces.push_back({p[a], p[b], p[c], geometry, triangle++});
            }
            ++geometry;
        }
        for (const auto& [corner, u, v, radiance] : scene.lights) {
            m_faces.push_back({corner, corner + u, corner + v, geometry, 0});
            m_faces.push_back({corner + u, corner + u + v, corner + v, geometry++, 0});
        }
        divide(0, m_faces.data(), m_faces.data() + m_faces.size(), 0);
    }

    Vector getExtent() const override { return m_boxes[0].high - m_boxes[0].low; }

    bool intersect(const Ray& ray, Hit& hit) const override
    {
        hit = {};
        find(0, m_faces.data(), m_faces.data() + m_faces.size(), 0, ray, hit);
        return hit.distance < Hit::s_infinity;
    }

    bool isOccluded(const Ray& ray, float distance) const override
    {
        Hit hit;
        return intersect(ray, hit) && hit.distance < distance;
    }

private:
    void divide(std::size_t node, Face* begin, Face* end, std::size_t depth)
    {
        m_boxes.resize(std::max(m_boxes.size(), node + 1));
        Box& box = m_boxes[node];
        for (const auto axis : s_axes) {
            for (const Face* f = begin; f != end; ++f) {
                box.low.*axis = std::min({box.low.*axis, f->a.*axis, f->b.*axis, f->c.*axis});
                box.high.*axis = std::max({box.high.*axis, f->a.*axis, f->b.*axis, f->c.*axis});
            }
        }
        if (end - begin > s_facesInLeaf) {
            Face* const middle = begin + (end - begin) / 2;
            const auto axis = s_axes[depth % 3];
            std::nth_element(begin, middle, end, [axis](const Face& f, const Face& g) {
                return f.a.*axis < g.a.*axis;
            });
            divide(2 * node + 1, begin, middle, depth + 1);
            divide(2 * node + 2, middle, end, depth + 1);
        }
    }

    void find(std::size_t node, const Face* begin, const Face* end, std::size_t depth,
              const Ray& ray, Hit& hit) const
    {
        const auto count = m_boxes[node].isCrossed(ray, hit.distance) ? end - begin : 0;
        if (count <= s_facesInLeaf) {
            std::for_each(begin, begin + count, [&](const Face& face) { face.meet(ray, hit); });
            return;
        }
        const Face* const middle = begin + (end - begin) / 2;
        const bool isBackwards = ray.direction.*s_axes[depth % 3] < 0.0F;
        for (const bool isUpper : {isBackwards, !isBackwards}) {
            isUpper ? find(2 * node + 2, middle, end, depth + 1, ray, hit)
                    : find(2 * node + 1, begin, middle, depth + 1, ray, hit);
        }
    }

    std::vector<Face> m_faces;
    std::vector<Box> m_boxes;
};

} // namespace

std::unique_ptr<const RayCaster> RayCaster::create(Scene& scene)
{
    return std::make_unique<const PlainRayCaster>(scene);
}

const bool RayCaster::s_isPlain = true;

} // namespace render
