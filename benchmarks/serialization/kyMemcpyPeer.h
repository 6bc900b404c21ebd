#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmarks/serialization/kyBlock.h>

/// What a careful hand writes instead of a serializer: a loop that checks the room and copies, into
/// one fixed buffer. The bytes are those of the library.
class kyMemcpyPeer
{
public:
    template <class T> void write(const std::vector<T>& values)
    {
        char* position = m_bytes.data();
        for (const T& value : values) {
            put(position, value);
        }
    }

    template <class T> void read(std::vector<T>& values)
    {
        const char* position = m_bytes.data();
        for (T& value : values) {
            get(position, value);
        }
    }

private:
    static constexpr std::size_t s_capacity = 131602 + 64;

    void check(const char* position, std::size_t size) const
    {
        if (size > static_cast<std::size_t>(m_bytes.data() + m_bytes.size() - position)) {
            throw std::out_of_range("beyond the buffer");
        }
    }

    template <class T> void put(char*& position, const T& value) const
    {
        check(position, sizeof value);
        std::memcpy(position, &value, sizeof value);
        position += sizeof value;
    }
    void put(char*& position, const std::string& text) const
    {
        const std::size_t size = text.size() + 1;
        put(position, static_cast<std::uint32_t>(size));
        check(position, size);
        std::memcpy(position, text.c_str(), size);
        position += size;
    }

    template <class T> void get(const char*& position, T& value) const
    {
        check(position, sizeof value);
        std::memcpy(&value, position, sizeof value);
        position += sizeof value;
    }
    void get(const char*& position, std::string& text) const
    {
        std::uint32_t size = 0;
        get(position, size);
        check(position, size);
        text.assign(position, size - 1);
        position += size;
    }

    std::vector<char> m_bytes = std::vector<char>(s_capacity);
};
