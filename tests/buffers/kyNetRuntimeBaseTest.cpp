#include <NetBase/buffers/kyNetRuntimeBase.h>

#include <memory>

#include <gtest/gtest.h>

#include <NetBase/buffers/kyNetError.h>

namespace {

class Runtime : public kyNetRuntimeBase
{
public:
    explicit Runtime(int rank) : m_rank(rank) {}

    int getRank() const override { return m_rank; }
    int getRankCount() const override { return 8; }
    std::string getNodeName() const override { return "node7"; }

private:
    int m_rank;
};

void expectNone()
{
    try {
        kyNetRuntimeBase::the();
        ADD_FAILURE() << "a runtime is registered";
    } catch (const kyNetError& error) {
        EXPECT_STREQ(error.what(), "No cluster runtime service available");
    }
}

} // namespace

TEST(kyNetRuntimeBase, noneIsRegisteredAtFirst)
{
    expectNone();
}

TEST(kyNetRuntimeBase, isRegisteredWhileItLives)
{
    {
        Runtime runtime(3);
        EXPECT_EQ(&kyNetRuntimeBase::the(), &runtime);
        EXPECT_EQ(kyNetRuntimeBase::the().getRank(), 3);
        EXPECT_EQ(kyNetRuntimeBase::the().getRankCount(), 8);
        EXPECT_EQ(kyNetRuntimeBase::the().getNodeName(), "node7");
    }
    expectNone();
}

TEST(kyNetRuntimeBase, theLastOneMadeIsRegistered)
{
    const Runtime first(1);
    const Runtime second(2);
    EXPECT_EQ(kyNetRuntimeBase::the().getRank(), 2);
}

// Intended: the end of any object ends the registration, also that of another.
TEST(kyNetRuntimeBase, theEndOfAnyOneEndsTheRegistration)
{
    auto first = std::make_unique<Runtime>(1);
    const Runtime second(2);
    first.reset();
    expectNone();
}
