#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <flatbuffers/flatbuffers.h>

#include <benchmarks/serialization/kyBlock.h>

/// FlatBuffers: one vector of the values, verified before it is read. Numbers are pushed one by
/// one, from the last to the first, as its builder grows downwards.
class kyFlatbuffersPeer
{
public:
    template <class T> void write(const std::vector<T>& values)
    {
        m_builder.Clear();
        m_builder.StartVector(values.size(), sizeof(T));
        for (auto value = values.rbegin(); value != values.rend(); ++value) {
            m_builder.PushElement(*value);
        }
        m_builder.Finish(
            flatbuffers::Offset<flatbuffers::Vector<T>>(m_builder.EndVector(values.size())));
    }
    void write(const std::vector<std::string>& texts)
    {
        m_builder.Clear();
        m_builder.Finish(m_builder.CreateVectorOfStrings(texts));
    }
    void write(const std::vector<kyBlock>& blocks)
    {
        m_builder.Clear();
        std::vector<flatbuffers::Offset<Bytes>> offsets;
        for (const kyBlock& block : blocks) {
            offsets.push_back(m_builder.CreateVector(block.data(), block.size()));
        }
        m_builder.Finish(m_builder.CreateVector(offsets));
    }

    template <class T> void read(std::vector<T>& values) const
    {
        const flatbuffers::Vector<T>& written = getVerified<T>(values.size());
        for (flatbuffers::uoffset_t i = 0; i < written.size(); ++i) {
            values[i] = written.Get(i);
        }
    }
    void read(std::vector<std::string>& texts) const
    {
        const auto& written = getVerified<flatbuffers::Offset<flatbuffers::String>>(texts.size());
        require(getVerifier().VerifyVectorOfStrings(&written));
        for (flatbuffers::uoffset_t i = 0; i < written.size(); ++i) {
            texts[i].assign(written.Get(i)->c_str(), written.Get(i)->size());
        }
    }
    void read(std::vector<kyBlock>& blocks) const
    {
        const auto& written = getVerified<flatbuffers::Offset<Bytes>>(blocks.size());
        for (flatbuffers::uoffset_t i = 0; i < written.size(); ++i) {
            const Bytes& block = *written.Get(i);
            require(getVerifier().VerifyVector(&block) && block.size() == blocks[i].size());
            std::copy(block.begin(), block.end(), blocks[i].begin());
        }
    }

private:
    using Bytes = flatbuffers::Vector<std::uint8_t>;

    static void require(bool isSound)
    {
        if (!isSound) {
            throw std::out_of_range("beyond the buffer");
        }
    }

    flatbuffers::Verifier getVerifier() const
    {
        return {m_builder.GetBufferPointer(), m_builder.GetSize()};
    }

    template <class T> const flatbuffers::Vector<T>& getVerified(std::size_t size) const
    {
        const auto* vector =
            flatbuffers::GetRoot<flatbuffers::Vector<T>>(m_builder.GetBufferPointer());
        require(getVerifier().VerifyVector(vector) && vector->size() == size);
        return *vector;
    }

    flatbuffers::FlatBufferBuilder m_builder;
};
