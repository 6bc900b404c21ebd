#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <benchmarks/serialization/kyBlock.h>

/// Protocol Buffers: the coded streams that its messages are made of, with numbers of fixed size
/// and without tags.
class kyProtobufPeer
{
public:
    template <class T> void write(const std::vector<T>& values)
    {
        google::protobuf::io::ArrayOutputStream array(m_bytes.data(), s_capacity);
        Output out(&array);
        for (const T& value : values) {
            put(out, value);
        }
        require(!out.HadError());
    }

    template <class T> void read(std::vector<T>& values) const
    {
        Input in(m_bytes.data(), s_capacity);
        for (T& value : values) {
            require(get(in, value));
        }
    }

private:
    using Output = google::protobuf::io::CodedOutputStream;
    using Input = google::protobuf::io::CodedInputStream;

    static constexpr int s_capacity = 131602;

    static void require(bool isSound)
    {
        if (!isSound) {
            throw std::out_of_range("beyond the buffer");
        }
    }

    static void put(Output& out, std::uint8_t value) { out.WriteRaw(&value, 1); }
    static void put(Output& out, std::uint32_t value) { out.WriteLittleEndian32(value); }
    static void put(Output& out, std::uint64_t value) { out.WriteLittleEndian64(value); }
    static void put(Output& out, const std::string& text)
    {
        out.WriteVarint32(static_cast<std::uint32_t>(text.size()));
        out.WriteString(text);
    }
    static void put(Output& out, const kyBlock& block) { out.WriteRaw(block.data(), sizeof block); }

    static bool get(Input& in, std::uint8_t& value) { return in.ReadRaw(&value, 1); }
    static bool get(Input& in, std::uint32_t& value) { return in.ReadLittleEndian32(&value); }
    static bool get(Input& in, std::uint64_t& value) { return in.ReadLittleEndian64(&value); }
    static bool get(Input& in, std::string& text)
    {
        std::uint32_t size = 0;
        return in.ReadVarint32(&size) && in.ReadString(&text, static_cast<int>(size));
    }
    static bool get(Input& in, kyBlock& block) { return in.ReadRaw(block.data(), sizeof block); }

    std::vector<std::uint8_t> m_bytes = std::vector<std::uint8_t>(s_capacity);
};
