#include <apps/TALORender/PlyCheck.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace render {

namespace {

enum class Encoding
{
    Text,
    LittleEndian,
    BigEndian
};

/// A value of each row, or a list of values led by their number.
struct Property
{
    bool isList = false;
    std::uint64_t countSize = 0;
    std::uint64_t valueSize = 0;
};

struct Element
{
    std::uint64_t count = 0;
    std::vector<Property> properties;
};

struct Header
{
    Encoding encoding = Encoding::Text;
    std::vector<Element> elements;
};

/// Takes the next word from the front of the text; empty at its end.
std::string_view takeWord(std::string_view& text)
{
    constexpr std::string_view s_blanks = " \t\r\n\v\f";
    text.remove_prefix(std::min(text.find_first_not_of(s_blanks), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(s_blanks));
    text.remove_prefix(word.size());
    return word;
}

/// Takes the next line from the front of the text, without its end.
std::string_view takeLine(std::string_view& text)
{
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}

std::optional<std::uint64_t> toNumber(std::string_view word)
{
    std::uint64_t number = 0;
    const char* end = word.data() + word.size();
    const auto result = std::from_chars(word.data(), end, number);
    return !word.empty() && result.ptr == end && result.ec == std::errc() ? std::optional(number)
                                                                          : std::nullopt;
}

/// Bytes of a type; 0 for an unknown one.
std::uint64_t sizeOf(std::string_view type)
{
    static const std::pair<const char*, std::uint64_t> s_sizes[] = {
        {"char", 1},  {"uchar", 1},   {"int8", 1},   {"uint8", 1},  {"short", 2}, {"ushort", 2},
        {"int16", 2}, {"uint16", 2},  {"int", 4},    {"uint", 4},   {"int32", 4}, {"uint32", 4},
        {"float", 4}, {"float32", 4}, {"double", 8}, {"float64", 8}};
    for (const auto& [name, size] : s_sizes) {
        if (type == name) {
            return size;
        }
    }
    return 0;
}

std::optional<Encoding> toEncoding(std::string_view word)
{
    if (word == "ascii") {
        return Encoding::Text;
    }
    if (word == "binary_little_endian") {
        return Encoding::LittleEndian;
    }
    return word == "binary_big_endian" ? std::optional(Encoding::BigEndian) : std::nullopt;
}

bool readProperty(std::string_view line, Property& property)
{
    std::string_view type = takeWord(line);
    if (type == "list") {
        property.isList = true;
        property.countSize = sizeOf(takeWord(line));
        type = takeWord(line);
    }
    property.valueSize = sizeOf(type);
    return property.valueSize > 0 && (!property.isList || property.countSize > 0);
}

/// Takes the header from the front of the file.
std::optional<Header> takeHeader(std::string_view& file)
{
    Header header;
    while (!file.empty()) {
        std::string_view line = takeLine(file);
        const std::string_view keyword = takeWord(line);
        if (keyword == "end_header") {
            return header;
        }
        if (keyword == "format") {
            const auto encoding = toEncoding(takeWord(line));
            if (!encoding) {
                return std::nullopt;
            }
            header.encoding = *encoding;
        } else if (keyword == "element") {
            takeWord(line);
            const auto count = toNumber(takeWord(line));
            if (!count) {
                return std::nullopt;
            }
            header.elements.push_back({*count, {}});
        } else if (keyword == "property") {
            Property property;
            if (header.elements.empty() || !readProperty(line, property)) {
                return std::nullopt;
            }
            header.elements.back().properties.push_back(property);
        }
    }
    return std::nullopt;
}

/// The values of the file, taken from the front one row after the other.
class Body
{
public:
    Body(std::string_view bytes, Encoding encoding) : m_left(bytes), m_encoding(encoding) {}

    /// Takes a value or a list; false if it is not all there.
    bool take(const Property& property)
    {
        std::uint64_t count = 1;
        return (!property.isList || takeCount(property.countSize, count)) &&
               skip(count, property.valueSize);
    }

private:
    bool takeCount(std::uint64_t size, std::uint64_t& count)
    {
        if (m_encoding == Encoding::Text) {
            const auto number = toNumber(takeWord(m_left));
            count = number.value_or(0);
            return number.has_value();
        }
        if (size > sizeof count || size > m_left.size()) {
            return false;
        }
        std::string bytes(m_left.substr(0, size));
        if (m_encoding == Encoding::BigEndian) {
            std::reverse(bytes.begin(), bytes.end());
        }
        count = 0;
        std::memcpy(&count, bytes.data(), size);
        m_left.remove_prefix(size);
        return true;
    }

    bool skip(std::uint64_t count, std::uint64_t size)
    {
        if (m_encoding == Encoding::Text) {
            while (count > 0 && !takeWord(m_left).empty()) {
                --count;
            }
            return count == 0;
        }
        if (count > m_left.size() / size) {
            return false;
        }
        m_left.remove_prefix(count * size);
        return true;
    }

    std::string_view m_left;
    Encoding m_encoding;
};

} // namespace

bool isPly(std::string_view bytes)
{
    return takeWord(bytes) == "ply";
}

bool isCompletePly(std::string_view bytes)
{
    const auto header = takeHeader(bytes);
    if (!header) {
        return false;
    }
    Body body(bytes, header->encoding);
    for (const Element& element : header->elements) {
        if (element.properties.empty()) {
            continue;
        }
        for (std::uint64_t row = 0; row < element.count; ++row) {
            for (const Property& property : element.properties) {
                if (!body.take(property)) {
                    return false;
                }
            }
        }
    }
    return true;
}

} // namespace render
